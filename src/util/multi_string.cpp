#include "util/multi_string.h"

#include <cstring>
#include <new>

#include "base/errors.h"

namespace Nvk {

namespace {

char* AllocZeroed(unsigned long size) {
    char* block = new (std::nothrow) char[size];
    if (block == nullptr) {
        throw CXMemoryAllocException();
    }
    std::memset(block, 0, size);
    return block;
}

}  // namespace

ClMultiString::ClMultiString(const ClMultiString& other) {
    const unsigned long length = other.Length();
    allocStr(static_cast<long>(length));
    if (length > 0) {
        std::memcpy(m_pBuffer, other.m_pBuffer, length);
    }
}

ClMultiString& ClMultiString::operator=(const ClMultiString& other) {
    if (this == &other) {
        return *this;
    }
    Empty();
    const unsigned long length = other.Length();
    allocStr(static_cast<long>(length));
    if (length > 0) {
        std::memcpy(m_pBuffer, other.m_pBuffer, length);
    }
    return *this;
}

ClMultiString::~ClMultiString() {
    Empty();
}

unsigned long ClMultiString::Length() const {
    if (m_pBuffer == nullptr) {
        return 0;
    }
    unsigned long length = 0;
    const char* position = m_pBuffer;
    do {
        const std::size_t step = std::strlen(position) + 1;
        length += step;
        position += step;
    } while (*position != '\0');
    return length;
}

void ClMultiString::Add(const char* text) {
    if (text == nullptr) {
        return;
    }
    const unsigned long old = Length();
    const std::size_t n = std::strlen(text);
    char* block = AllocZeroed(old + n + 2);
    if (m_pBuffer != nullptr) {
        std::memcpy(block, m_pBuffer, old);
    }
    std::memcpy(block + old, text, n + 1);
    Empty();
    m_pBuffer = block;
    ResetNext();
}

const char* ClMultiString::Next() {
    if (m_pNext == nullptr) {
        return nullptr;
    }
    const char* current = m_pNext;
    m_pNext += std::strlen(m_pNext) + 1;
    if (*m_pNext == '\0') {
        m_pNext = nullptr;
    }
    return current;
}

void ClMultiString::Empty() {
    if (m_pBuffer != nullptr) {
        delete[] m_pBuffer;
        m_pBuffer = nullptr;
        ResetNext();
    }
}

char* ClMultiString::Detach() {
    char* buffer = m_pBuffer;
    m_pBuffer = nullptr;
    ResetNext();
    return buffer;
}

void ClMultiString::Attach(char* buffer) {
    if (buffer == m_pBuffer) {  // re-attaching the own buffer must not free it
        ResetNext();
        return;
    }
    Empty();
    m_pBuffer = buffer;
    ResetNext();
}

void ClMultiString::allocStr(long size) {
    Empty();
    if (size > 0) {
        m_pBuffer = AllocZeroed(static_cast<unsigned long>(size) + 1);
    }
    ResetNext();
}

}  // namespace Nvk
