#pragma once

/// Marks what the module shows by name beside its entry points; see also `exports.map`.
#if defined(_WIN32)
#define UNIVIEW_API __declspec(dllexport)
#else
#define UNIVIEW_API __attribute__((visibility("default")))
#endif
