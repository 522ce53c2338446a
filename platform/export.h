// Marks what leaves the shared library. Everything else is built with hidden visibility.
#pragma once

#if defined(_WIN32)
#if defined(TARNO_BUILDING_LIBRARY)
#define TN_API __declspec(dllexport)
#else
#define TN_API __declspec(dllimport)
#endif
#else
#define TN_API __attribute__((visibility("default")))
#endif
