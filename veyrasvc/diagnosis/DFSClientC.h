/*
 * The diagnosis client for callers in C and for every language that can call C.
 *
 * Each function converts its arguments, calls the method of the same name of DFSClient (DFSClient.h) and copies what
 * comes back into memory of the caller. Texts are bytes that end with a NUL; the service's are UTF-8.
 *
 * Owns: the caller, nothing but the handle. No pointer that is passed in is kept.
 * Threads: any, also on one handle; DFSClientDestroy only when no other call on the handle is under way. Calls that
 * wait for the service take up to a minute. Outcomes of starts are not seen through this interface. Fails: -1 and
 * nothing called or written for a null handle or a null pointer that is not said to be optional. A query that gets no
 * answer gives 0 and an empty text or list. An answer of the wrong shape lets a C++ exception pass, which a caller in C
 * cannot catch: the process ends.
 */
#ifndef VEYRASVC_DIAGNOSIS_DFSCLIENTC_H
#define VEYRASVC_DIAGNOSIS_DFSCLIENTC_H

#include "veyrasvc/platform/Export.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DFS_TEXT_SIZE 200
#define DFS_MAX_ITEMS 50
#define DFS_VERSION_SIZE 199       /* of the buffer for a version, its NUL included */
#define DFS_FAULT_INFO_SIZE 199999 /* of the buffer for a fault's record, its NUL included */

/* A text that does not end within its field is taken to its end. */
typedef struct CDiagnosisDeviceInfo {
    char deviceType[DFS_TEXT_SIZE];
    int32_t operationType;
    char deviceId[DFS_TEXT_SIZE];
    char packageName[DFS_TEXT_SIZE];
    char authTag[DFS_TEXT_SIZE];
    int32_t trelixVersion;
} CDiagnosisDeviceInfo;

/* A count below 1 is no item, one above DFS_MAX_ITEMS is DFS_MAX_ITEMS. */
typedef struct CStringList {
    char items[DFS_MAX_ITEMS][DFS_TEXT_SIZE];
    int32_t count;
} CStringList;

typedef struct DFSClientCell* DFSClientHandle;

/* Joins the bus as the module. Null when memory is short. */
VEYRASVC_API DFSClientHandle DFSClientCreate(int moduleId);
/* A null handle is no error. */
VEYRASVC_API void DFSClientDestroy(DFSClientHandle handle);

/*
 * What is too long for the caller's memory is cut, at a whole UTF-8 character, and ends with a NUL: a version or an
 * item after 198 bytes, a fault's record after 199998. A list takes the first DFS_MAX_ITEMS items.
 */
VEYRASVC_API int CGetSdkVersion(DFSClientHandle handle, char* version);
VEYRASVC_API int CGetDetectCapability(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo,
                                      CStringList* capability);
VEYRASVC_API int CGetRepairCapability(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo,
                                      CStringList* capability);
VEYRASVC_API int CGetFaultInfobyId(DFSClientHandle handle, int eventId, int64_t startTime, int64_t endTime,
                                   const char* eventType, const char* eventProvider, char* faultInfo);

/* 0: posted, or cancelled; else -1. */
VEYRASVC_API int CStartDetection(DFSClientHandle handle, const CStringList* operationItems, int operationScene,
                                 const CDiagnosisDeviceInfo* deviceInfo);
VEYRASVC_API int CCancelDetection(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo);
VEYRASVC_API int CStartRepair(DFSClientHandle handle, const CStringList* operationItems, int operationScene,
                              const CDiagnosisDeviceInfo* deviceInfo);
VEYRASVC_API int CCancelRepair(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo);
/* Requires: `text` is not null. */
VEYRASVC_API int CCancelNotify(DFSClientHandle handle, const char* text);

#ifdef __cplusplus
static_assert(sizeof(CDiagnosisDeviceInfo) == 808, "the layout is part of the interface");
static_assert(sizeof(CStringList) == 10004, "the layout is part of the interface");
} /* extern "C" */
#else
_Static_assert(sizeof(CDiagnosisDeviceInfo) == 808, "the layout is part of the interface");
_Static_assert(sizeof(CStringList) == 10004, "the layout is part of the interface");
#endif

#endif
