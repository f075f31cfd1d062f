#pragma once

// Marks what the shared library IpUtil exports; everything else stays inside it.
#if defined(_WIN32)
#if defined(IPUTIL_BUILDING)
#define IPUTIL_API __declspec(dllexport)
#else
#define IPUTIL_API __declspec(dllimport)
#endif
#else
#define IPUTIL_API __attribute__((visibility("default")))
#endif
