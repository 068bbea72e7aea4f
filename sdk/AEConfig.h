// Platform configuration of the host interface. Plug-in sources include this header first,
// as with the vendor's SDK (entry.h tests the platform switches it sets).
#pragma once

#if defined(__APPLE__)
#define AE_OS_MAC 1
#elif defined(_WIN32)
#define AE_OS_WIN 1
#else
#define AE_OS_LINUX 1
#endif

#if defined(__x86_64__) || defined(_M_X64)
#define AE_PROC_INTELx64 1
#endif
