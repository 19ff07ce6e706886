// How a shared library marks its interface, and what else compilers spell differently.
#pragma once

#if defined(VEYRASVC_STATIC)
#define VEYRASVC_EXPORT
#define VEYRASVC_IMPORT
#elif defined(_WIN32)
#define VEYRASVC_EXPORT __declspec(dllexport)
#define VEYRASVC_IMPORT __declspec(dllimport)
#else
#define VEYRASVC_EXPORT __attribute__((visibility("default")))
#define VEYRASVC_IMPORT __attribute__((visibility("default")))
#endif

// VEYRASVC_API marks what libveyrasvc offers its callers; everything else stays inside.
#if defined(VEYRASVC_BUILDING)
#define VEYRASVC_API VEYRASVC_EXPORT
#else
#define VEYRASVC_API VEYRASVC_IMPORT
#endif

// The full signature of the enclosing function, for the log.
#if defined(_MSC_VER)
#define VEYRASVC_FUNCTION_SIGNATURE __FUNCSIG__
#else
#define VEYRASVC_FUNCTION_SIGNATURE __PRETTY_FUNCTION__
#endif
