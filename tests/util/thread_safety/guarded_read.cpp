// Compiled, not run, by the thread_safety_* tests: with KR7_TAKE_THE_LOCK
// it must compile cleanly under -Wthread-safety -Werror; without it the
// analysis must refuse the unlocked read.
#include "util/mutex.h"

class Counter {
public:
    int Read() {
#ifdef KR7_TAKE_THE_LOCK
        Nvk::CXLock lock(m_Mutex);
#endif
        return m_nValue;
    }

private:
    Nvk::CXMutex m_Mutex;
    int m_nValue GUARDED_BY(m_Mutex) = 0;
};

int Read(Counter& counter) {
    return counter.Read();
}
