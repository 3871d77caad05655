#include "HXLVirtualI18NString.h"

#include "HXLVirtualStringPayload.h"

#include <cstring>

using hxl_string_detail::equalPayloads;
using hxl_string_detail::managerOf;
using hxl_string_detail::MappedPayload;
using hxl_string_detail::payloadEquals;
using hxl_string_detail::readablePayload;

I18NString HXLVirtualI18NString::getString(HXLVirtualMemoryMgr* memMgr) {
    if (!readablePayload(memMgr, *this))
        return I18NString();
    MappedPayload payload(memMgr, *this);
    if (payload.address() == NULL)
        return I18NString();
    return I18NString(payload.address(), static_cast<int>(m_size), NULL, NULL);
}

I18NString HXLVirtualI18NString::getString(HXLVirtualContainer* container) {
    return getString(managerOf(container));
}

void HXLVirtualI18NString::setString(const I18NString& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || value.empty())
        return;
    void* block = NULL;
    HXL_TRY {
        block = memMgr->alloc(static_cast<unsigned int>(value.size()), *this);
        if (block == NULL)
            HXL_THROW(HXLOutOfMemoryError(0, NULL), "HXLVirtualI18NString");
    }
    HXL_TRANSLATE("HXLVirtualI18NString");
    std::memcpy(block, value.getExternalBuffer(), m_size);
    memMgr->dismiss(*this);
}

void HXLVirtualI18NString::setString(const I18NString& value, HXLVirtualContainer* container) {
    setString(value, managerOf(container));
}

int HXLVirtualI18NString::isEqual(HXLVirtualI18NString& other, HXLVirtualMemoryMgr* memMgr) {
    return equalPayloads(memMgr, *this, other);
}

int HXLVirtualI18NString::isEqual(HXLVirtualI18NString& other, HXLVirtualContainer* container) {
    return equalPayloads(managerOf(container), *this, other);
}

int HXLVirtualI18NString::isEqual(const HXLVirtualI18NString& other,
                                  HXLVirtualMemoryMgr* memMgr) const {
    return equalPayloads(memMgr, *this, other);
}

int HXLVirtualI18NString::isEqual(const I18NString& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || static_cast<long long>(m_size) != value.size())
        return 0;
    return payloadEquals(memMgr, *this, value.getExternalBuffer());
}

int HXLVirtualI18NString::isEqual(const I18NString& value, HXLVirtualContainer* container) {
    return isEqual(value, managerOf(container));
}
