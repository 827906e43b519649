// A list of text strings packed into one flat buffer: each string with its
// terminating zero byte, one after another, and one more zero byte after the
// last. A block of this form crosses the plug-in interface as one char* and a
// byte count.
#pragma once

namespace Nvk {

class ClMultiString {
public:
    ClMultiString() = default;
    ClMultiString(const ClMultiString& other);
    ClMultiString& operator=(const ClMultiString& other);
    virtual ~ClMultiString();

    // True while there is no buffer.
    bool IsEmpty() const { return m_pBuffer == nullptr; }

    // Bytes of all strings with their own zero bytes, without the final
    // extra zero byte. The first string is always counted, so a buffer that
    // begins with a zero byte has length 1.
    unsigned long Length() const;

    // Appends a copy of `text` and restarts the iteration. An empty text
    // ends the list where it is stored; a null text adds nothing.
    void Add(const char* text);

    // The next string of the iteration, or null once all have been returned.
    const char* Next();
    void ResetNext() { m_pNext = m_pBuffer; }

    // Frees the buffer.
    void Empty();

    // The packed list (Length() + 1 bytes), or null while empty.
    const char* Data() const { return m_pBuffer; }

    // Hands the buffer to the caller, who frees it with delete[].
    char* Detach();

    // Takes ownership of `buffer`, which must be allocated with new[] and be
    // in the list format (a null buffer leaves the list empty).
    void Attach(char* buffer);

protected:
    // Installs a zeroed buffer of size + 1 bytes (none for a size of 0 or
    // less), freeing the old one.
    void allocStr(long size);

private:
    char* m_pBuffer = nullptr;
    char* m_pNext = nullptr;
};

}  // namespace Nvk
