#include "veyrasvc/bus/SecurityAttribute.h"

#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

SecurityAttribute::SecurityAttribute() : m_attributes(), m_everyoneSid(nullptr), m_descriptor(nullptr), m_acl(nullptr) {
    m_attributes.nLength = sizeof m_attributes;
}

SecurityAttribute::~SecurityAttribute() {
    Release();
}

SECURITY_ATTRIBUTES* SecurityAttribute::EveryoneSecAttr() {
    Release();
    if (!MakeSid() || !MakeAcl() || !MakeDescriptor()) {
        return nullptr;
    }
    m_attributes.nLength = sizeof m_attributes;
    m_attributes.lpSecurityDescriptor = m_descriptor;
    m_attributes.bInheritHandle = FALSE;
    return &m_attributes;
}

bool SecurityAttribute::MakeSid() {
    SID_IDENTIFIER_AUTHORITY world = {{0, 0, 0, 0, 0, 1}};
    if (AllocateAndInitializeSid(&world, 1, 0, 0, 0, 0, 0, 0, 0, 0, &m_everyoneSid) == FALSE) {
        LOG_ERROR("AllocateAndInitializeSid failed. error=" << GetLastError());
        return false;
    }
    return true;
}

bool SecurityAttribute::MakeAcl() {
    EXPLICIT_ACCESS_W entry{};
    entry.grfAccessPermissions = GENERIC_ALL;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = NO_INHERITANCE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = static_cast<LPWSTR>(m_everyoneSid);
    const DWORD error = SetEntriesInAclW(1, &entry, nullptr, &m_acl);
    if (error != ERROR_SUCCESS) {
        SetLastError(error); // the call reports its error as its result only
        LOG_ERROR("SetEntriesInAcl failed. error=" << GetLastError());
        return false;
    }
    return true;
}

bool SecurityAttribute::MakeDescriptor() {
    m_descriptor = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
    if (m_descriptor == nullptr) {
        LOG_ERROR("LocalAlloc failed. error=" << GetLastError());
        return false;
    }
    if (InitializeSecurityDescriptor(m_descriptor, SECURITY_DESCRIPTOR_REVISION) == FALSE) {
        LOG_ERROR("InitializeSecurityDescriptor failed. error=" << GetLastError());
        return false;
    }
    if (SetSecurityDescriptorDacl(m_descriptor, TRUE, m_acl, FALSE) == FALSE) {
        LOG_ERROR("SetSecurityDescriptorDacl failed. error=" << GetLastError());
        return false;
    }
    return true;
}

void SecurityAttribute::Release() {
    if (m_everyoneSid != nullptr) {
        FreeSid(m_everyoneSid);
        m_everyoneSid = nullptr;
    }
    if (m_acl != nullptr) {
        LocalFree(m_acl);
        m_acl = nullptr;
    }
    if (m_descriptor != nullptr) {
        LocalFree(m_descriptor);
        m_descriptor = nullptr;
    }
    m_attributes.lpSecurityDescriptor = nullptr;
}

} // namespace Vantor::Sentrix
