#include "HXLVirtualI18NString.h"

#include "HXLVirtualContainer.h"
#include "HXLVirtualMemoryMgr.h"

#include <cstring>

namespace {
HXLVirtualMemoryMgr* managerOf(HXLVirtualContainer* container) {
    return container != NULL ? container->getMemoryMgr() : NULL;
}

// One mapping of a payload, given back when the scope ends, also by an exception.
class MappedPayload {
public:
    MappedPayload(HXLVirtualMemoryMgr* memMgr, unsigned long long offset)
        : m_memMgr(memMgr), m_offset(offset), m_address(memMgr->getAddress(offset, 1)) {}
    ~MappedPayload() { release(); }
    MappedPayload(const MappedPayload&) = delete;
    MappedPayload& operator=(const MappedPayload&) = delete;

    const void* address() const { return m_address; }
    void release() {
        if (m_address != NULL)
            m_memMgr->dismiss(m_offset);
        m_address = NULL;
    }

private:
    HXLVirtualMemoryMgr* m_memMgr;
    unsigned long long m_offset;
    const void* m_address;
};

// Same size and bytes of two payloads of one store; maps nothing when the sizes differ.
int equalPayloads(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& mine,
                  const HXLVirtualPageItem& theirs) {
    if (memMgr == NULL || mine.getSize() != theirs.getSize())
        return 0;
    MappedPayload first(memMgr, mine.getOffset());
    MappedPayload second(memMgr, theirs.getOffset());
    int equal = first.address() != NULL && second.address() != NULL &&
                        std::memcmp(first.address(), second.address(), mine.getSize()) == 0
                    ? 1
                    : 0;
    first.release(); // this string first, then the other
    second.release();
    return equal;
}
} // namespace

I18NString HXLVirtualI18NString::getString(HXLVirtualMemoryMgr* memMgr) {
    if (memMgr == NULL || empty())
        return I18NString();
    MappedPayload payload(memMgr, m_offset);
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
    MappedPayload mine(memMgr, m_offset);
    return mine.address() != NULL &&
                   std::memcmp(mine.address(), value.getExternalBuffer(), m_size) == 0
               ? 1
               : 0;
}

int HXLVirtualI18NString::isEqual(const I18NString& value, HXLVirtualContainer* container) {
    return isEqual(value, managerOf(container));
}
