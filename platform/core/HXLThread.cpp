#include "HXLCore.h"

HXLThreadLockableResource::~HXLThreadLockableResource() = default;

HXLThreadCriticalSection::HXLThreadCriticalSection(int) {}
HXLThreadCriticalSection::~HXLThreadCriticalSection() = default;
void HXLThreadCriticalSection::lock() {
    m_mutex.lock();
}
void HXLThreadCriticalSection::unlock() {
    m_mutex.unlock();
}

HXLThreadGuard::HXLThreadGuard(HXLThreadLockableResource& resource) : m_resource(resource) {
    m_resource.lock();
}
HXLThreadGuard::~HXLThreadGuard() {
    m_resource.unlock();
}
