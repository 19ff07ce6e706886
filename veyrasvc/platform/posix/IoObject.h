// What ReadFile and WriteFile work on: files and both ends of every pipe.
#pragma once

#include "veyrasvc/platform/posix/Handle.h"

namespace Vantor::Sentrix::Platform {

class IoObject : public Object {
public:
    // The duties of ReadFile and WriteFile for this kind of object, arguments as the caller gave them, except that a
    // buffer of more than 0 bytes is never null and `*transferred`, when there is one, is already 0.
    // Fails: FALSE with the last error set; ERROR_IO_PENDING when the operation will complete later.
    virtual BOOL Read(void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) = 0;
    virtual BOOL Write(const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped) = 0;
};

} // namespace Vantor::Sentrix::Platform
