#include "util/mutex.h"

#include "base/errors.h"

namespace Nvk {

namespace {

void Check(int rc) {
    if (rc != 0) {
        throw CXSystemException(rc);
    }
}

}  // namespace

CXMutex::CXMutex() {
    Check(pthread_mutex_init(&m_Mutex, nullptr));
}

CXMutex::CXMutex(int type) {
    pthread_mutexattr_t attributes;
    Check(pthread_mutexattr_init(&attributes));
    int rc = pthread_mutexattr_settype(&attributes, type);
    if (rc == 0) {
        rc = pthread_mutex_init(&m_Mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    Check(rc);
}

CXMutex::~CXMutex() {
    pthread_mutex_destroy(&m_Mutex);
}

void CXMutex::Lock() {
    Check(pthread_mutex_lock(&m_Mutex));
}

void CXMutex::Unlock() {
    pthread_mutex_unlock(&m_Mutex);
}

CXRecursiveMutex::CXRecursiveMutex() : CXMutex(PTHREAD_MUTEX_RECURSIVE) {}

CXCondition::CXCondition() {
    Check(pthread_cond_init(&m_Condition, nullptr));
}

CXCondition::~CXCondition() {
    pthread_cond_destroy(&m_Condition);
}

void CXCondition::Wait(CXMutex& mutex) {
    Check(pthread_cond_wait(&m_Condition, &mutex.m_Mutex));
}

void CXCondition::NotifyAll() {
    pthread_cond_broadcast(&m_Condition);
}

}  // namespace Nvk
