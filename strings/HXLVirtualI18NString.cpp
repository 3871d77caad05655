#include "HXLVirtualI18NString.h"

#include "HXLVirtualStringPayload.h"

using hxl_string_detail::equalPayloads;
using hxl_string_detail::managerOf;
using hxl_string_detail::MappedPayload;
using hxl_string_detail::payloadEquals;
using hxl_string_detail::readablePayload;
using hxl_string_detail::storePayload;

namespace {
// The function name of the back-trace frames of this class.
const char kLocation[] = "HXLVirtualI18NString";
} // namespace

I18NString HXLVirtualI18NString::getString(HXLVirtualMemoryMgr* memMgr) {
    if (!readablePayload(memMgr, *this))
        return I18NString();
    const MappedPayload payload(memMgr, *this, kLocation);
    if (!payload)
        return I18NString(); // kInvalidOffset: no payload
    return I18NString(payload.get(), static_cast<int>(m_size), NULL, NULL);
}

I18NString HXLVirtualI18NString::getString(HXLVirtualContainer* container) {
    return getString(managerOf(container));
}

void HXLVirtualI18NString::setString(const I18NString& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || value.empty())
        return;
    storePayload(memMgr, *this, value.getExternalBuffer(), static_cast<unsigned int>(value.size()),
                 kLocation);
}

void HXLVirtualI18NString::setString(const I18NString& value, HXLVirtualContainer* container) {
    setString(value, managerOf(container));
}

int HXLVirtualI18NString::isEqual(HXLVirtualI18NString& other, HXLVirtualMemoryMgr* memMgr) {
    return equalPayloads(memMgr, *this, other, kLocation);
}

int HXLVirtualI18NString::isEqual(HXLVirtualI18NString& other, HXLVirtualContainer* container) {
    return equalPayloads(managerOf(container), *this, other, kLocation);
}

int HXLVirtualI18NString::isEqual(const HXLVirtualI18NString& other,
                                  HXLVirtualMemoryMgr* memMgr) const {
    return equalPayloads(memMgr, *this, other, kLocation);
}

int HXLVirtualI18NString::isEqual(const I18NString& value, HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || static_cast<long long>(m_size) != value.size())
        return 0;
    return payloadEquals(memMgr, *this, value.getExternalBuffer(), kLocation);
}

int HXLVirtualI18NString::isEqual(const I18NString& value, HXLVirtualContainer* container) {
    return isEqual(value, managerOf(container));
}
