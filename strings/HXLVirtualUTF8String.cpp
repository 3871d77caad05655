#include "HXLVirtualUTF8String.h"

#include "HXLVirtualStringPayload.h"

using hxl_string_detail::equalPayloads;
using hxl_string_detail::managerOf;
using hxl_string_detail::MappedPayload;
using hxl_string_detail::payloadEquals;
using hxl_string_detail::readablePayload;
using hxl_string_detail::storePayload;

namespace {
// The function name of the back-trace frames of this class.
const char kLocation[] = "HXLVirtualUTF8String";
} // namespace

void* HXLVirtualUTF8String::getObjectPtr(HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL)
        return NULL;
    return hxl_string_detail::mapPayload(memMgr, *this, kLocation);
}

void* HXLVirtualUTF8String::getObjectPtr(HXLVirtualContainer* container) {
    return getObjectPtr(managerOf(container));
}

I18NString HXLVirtualUTF8String::getString(HXLVirtualMemoryMgr* memMgr) {
    if (!readablePayload(memMgr, *this))
        return I18NString();
    const MappedPayload payload(memMgr, *this, kLocation);
    if (!payload)
        return I18NString(); // kInvalidOffset: no payload
    return I18NString(payload.get(), NULL, static_cast<int>(m_size), NULL, NULL);
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
    storePayload(memMgr, *this, bytes, static_cast<unsigned int>(length), kLocation);
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
    return equalPayloads(memMgr, *this, other, kLocation);
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
    return payloadEquals(memMgr, *this, bytes, kLocation);
}

int HXLVirtualUTF8String::isEqual(const I18NString& value, HXLVirtualContainer* container) const {
    return isEqual(value, managerOf(container));
}
