// The security attributes with which the bus's pipe lets every account of the machine connect.
#pragma once

#include "veyrasvc/platform/Win32.h"

namespace Vantor::Sentrix {

class SecurityAttribute {
public:
    SecurityAttribute();
    ~SecurityAttribute();
    SecurityAttribute(const SecurityAttribute&) = delete;
    SecurityAttribute& operator=(const SecurityAttribute&) = delete;

    // Builds attributes that grant everyone everything, in place of what an earlier call built.
    // Owns: the result belongs to this object; every call returns the same address.
    // Fails: null, with an ERROR line that names the step.
    // Lifetime: until the next call or the end of this object.
    SECURITY_ATTRIBUTES* EveryoneSecAttr();

private:
    bool MakeSid();
    bool MakeAcl();
    bool MakeDescriptor();
    void Release();

    SECURITY_ATTRIBUTES m_attributes;
    PSID m_everyoneSid;
    PSECURITY_DESCRIPTOR m_descriptor;
    PACL m_acl;
};

} // namespace Vantor::Sentrix
