// Export decoration for the plug-in's entry point. Include AEConfig.h before this header.
#pragma once

#if defined(AE_OS_WIN)
#define DllExport __declspec(dllexport)
#else
#define DllExport __attribute__((visibility("default")))
#endif
