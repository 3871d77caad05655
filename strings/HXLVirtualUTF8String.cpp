#include "HXLVirtualUTF8String.h"

#include "HXLVirtualStringPayload.h"

#include <cstring>

using hxl_string_detail::equalPayloads;
using hxl_string_detail::managerOf;
using hxl_string_detail::MappedPayload;
using hxl_string_detail::payloadEquals;
using hxl_string_detail::readablePayload;

void* HXLVirtualUTF8String::getObjectPtr(HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL)
        return NULL;
    return memMgr->getAddress(*this, 1);
}

void* HXLVirtualUTF8String::getObjectPtr(HXLVirtualContainer* container) {
    return getObjectPtr(managerOf(container));
}

I18NString HXLVirtualUTF8String::getString(HXLVirtualMemoryMgr* memMgr) {
    if (!readablePayload(memMgr, *this))
        return I18NString();
    MappedPayload payload(memMgr, *this);
    if (payload.address() == NULL)
        return I18NString();
    return I18NString(static_cast<const char*>(payload.address()), NULL, static_cast<int>(m_size),
                      NULL, NULL);
}

I18NString HXLVirtualUTF8String::getString(HXLVirtualContainer* container) {
    return getString(managerOf(container));
}

void HXLVirtualUTF8String::setString(const I18NString& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || value.empty())
        return;
    int length = 0;
    const char* bytes = value.c_str(NULL, &length, NULL, NULL);
    length -= 1; // c_str counts the closing NUL, which is not stored
    if (bytes == NULL || length <= 0)
        return;
    void* block = NULL;
    HXL_TRY {
        block = memMgr->alloc(static_cast<unsigned int>(length), *this);
        if (block == NULL)
            HXL_THROW(HXLOutOfMemoryError(0, NULL), "HXLVirtualUTF8String");
    }
    HXL_TRANSLATE("HXLVirtualUTF8String");
    std::memcpy(block, bytes, m_size);
    memMgr->dismiss(*this);
}

void HXLVirtualUTF8String::setString(const I18NString& value, HXLVirtualContainer* container) {
    setString(value, managerOf(container));
}

void HXLVirtualUTF8String::setString(const HXLI18NBuffer& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || value.empty() != 0)
        return;
    setString(value.getString(), memMgr);
}

void HXLVirtualUTF8String::setString(const HXLI18NBuffer& value, HXLVirtualContainer* container) {
    setString(value, managerOf(container));
}

void HXLVirtualUTF8String::getI18NBuffer(HXLI18NBuffer& buffer, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || empty())
        buffer.clear();
    else
        buffer = getString(memMgr);
}

void HXLVirtualUTF8String::getI18NBuffer(HXLI18NBuffer& buffer, HXLVirtualContainer* container) {
    getI18NBuffer(buffer, managerOf(container));
}

int HXLVirtualUTF8String::isEqual(const HXLVirtualUTF8String& other,
                                  HXLVirtualMemoryMgr* memMgr) const {
    return equalPayloads(memMgr, *this, other);
}

int HXLVirtualUTF8String::isEqual(const HXLVirtualUTF8String& other,
                                  HXLVirtualContainer* container) const {
    return isEqual(other, managerOf(container));
}

int HXLVirtualUTF8String::isEqual(const I18NString& value, HXLVirtualMemoryMgr* memMgr) const {
    if (memMgr == NULL)
        return 0;
    if (empty() && value.empty())
        return 1;
    int length = 0;
    const char* bytes = value.c_str(NULL, &length, NULL, NULL);
    length -= 1;
    if (length < 0 || static_cast<unsigned int>(length) != m_size)
        return 0;
    return payloadEquals(memMgr, *this, bytes);
}

int HXLVirtualUTF8String::isEqual(const I18NString& value, HXLVirtualContainer* container) const {
    return isEqual(value, managerOf(container));
}
