#pragma once

namespace zel {

/// Marks the calling thread, for a scope, as being inside a callback of an object's owner. The
/// object asks for the mark when it is closed there: it must not wait for that very thread.
/// Several threads may be inside callbacks of one object, and one thread inside those of several.
class CallbackMark
{
public:
    /// @param object  compared only
    explicit CallbackMark(const void* object) : m_object(object), m_outer(s_innermost)
    {
        s_innermost = this;
    }
    ~CallbackMark() { s_innermost = m_outer; }
    CallbackMark(const CallbackMark&) = delete;
    CallbackMark& operator=(const CallbackMark&) = delete;

    /// Whether the calling thread is inside a callback of this object.
    static bool isInside(const void* object)
    {
        const CallbackMark* mark = s_innermost;
        while (mark != nullptr && mark->m_object != object) {
            mark = mark->m_outer;
        }
        return mark != nullptr;
    }

private:
    static inline thread_local const CallbackMark* s_innermost = nullptr;

    const void* m_object;
    const CallbackMark* m_outer; ///< not owned
};

} // namespace zel
