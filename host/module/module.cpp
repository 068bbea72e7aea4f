// The plug-in module: the host loads this shared object and calls EntryPointFunc, its only
// exported symbol. The function itself is defined in host/entry.cpp (quorvane_effect); the
// link pulls it in by name and the version script hides everything else.
