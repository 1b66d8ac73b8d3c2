#pragma once

#include <algorithm>
#include <climits>
#include <map>

namespace zel::test {

/// What a history buffer has to answer, reckoned in the stream alone: there is no ring in here and
/// there are no bytes, for a byte is known by its offset. Without threads: nothing blocks.
///
/// Its owner calls what it calls on the real buffer, in the same order.
class RingModel
{
public:
    using Offset = unsigned long long;

    struct Reader
    {
        Offset position = 0; ///< stream offset of the next byte
        Offset origin = 0;   ///< where a reset goes
        bool released = false;
    };

    RingModel(Offset size, Offset history) : m_size(size), m_history(history) {}

    // The stream. Index 0 of lap n holds stream offset m_start + n * m_size.
    Offset head() const { return m_start + m_total; }
    Offset lapStart() const { return head() - m_total % m_size; }
    Offset total() const { return m_total; }
    bool ended() const { return m_ended; }
    bool released() const { return m_released; }
    Offset indexOf(Offset offset) const { return (offset - m_start) % m_size; }

    /// Bytes between a live reader and the head; for one that was overrun only what is left of it
    /// when whole laps are taken away.
    Offset backlog(const Reader& reader) const { return (head() - reader.position) % m_size; }

    Offset slowestBacklog() const
    {
        Offset most = 0;
        bool live = false;
        for (const auto& [id, reader] : readers) {
            if (!reader.released) {
                most = std::max(most, backlog(reader));
                live = true;
            }
        }
        return live ? most : m_total % m_size;
    }

    Offset room() const
    {
        const Offset taken = slowestBacklog() + std::min(m_total, m_history) + 1;
        return taken < m_size ? m_size - taken : 0;
    }

    Offset smallestIndex() const
    {
        Offset smallest = 0;
        bool live = false;
        for (const auto& [id, reader] : readers) {
            if (!reader.released) {
                const Offset index = indexOf(reader.position);
                smallest = live ? std::min(smallest, index) : index;
                live = true;
            }
        }
        return smallest;
    }

    Offset smallestPosition() const
    {
        Offset smallest = readers.empty() ? 0 : ULLONG_MAX;
        for (const auto& [id, reader] : readers) {
            smallest = std::min(smallest, reader.released ? 0 : reader.position);
        }
        return smallest;
    }

    Offset historyStart() const { return m_total <= m_size ? lapStart() : head() - m_size; }

    Offset guaranteedStart() const
    {
        const Offset slowest = smallestPosition();
        return slowest > historyStart() + m_history ? slowest - m_history : historyStart();
    }

    bool holdsCoarsely(Offset offset) const
    {
        return offset > lapStart() ? offset < lapStart() + slowestBacklog()
                                   : offset >= historyStart();
    }

    bool active() const
    {
        return !m_released &&
               (readers.empty() || std::any_of(readers.begin(), readers.end(),
                                               [](const auto& at) { return !at.second.released; }));
    }

    Offset available(const Reader& reader) const
    {
        return reader.position >= m_total + lapStart() ? 0 : backlog(reader);
    }

    bool holds(const Reader& reader, Offset offset) const
    {
        return offset > reader.position ? offset < reader.position + available(reader)
                                        : offset >= guaranteedStart();
    }

    // What happens to it.
    /// @return bytes stored
    Offset write(Offset size)
    {
        if (m_released) {
            return 0;
        }
        m_ended = false;
        const Offset stored = m_hasStorage ? std::min(size, room()) : 0;
        m_total += stored;
        return stored;
    }

    /// @return bytes taken, as by a call that does not wait
    Offset read(Reader& reader, Offset size, Offset minimum, Offset maximum)
    {
        const Offset least = std::min(minimum != 0 ? minimum : size, available(reader));
        if (least == 0) {
            return 0;
        }
        const Offset n = std::min(maximum != 0 ? maximum : size, available(reader));
        reader.position += n;
        return n;
    }

    bool seek(Reader& reader, Offset offset)
    {
        // A byte one whole lap back lies where the next one will be written.
        const bool lapBack = m_total > m_size && offset + m_size <= head();
        if (reader.released || lapBack || !holds(reader, offset)) {
            return false;
        }
        reader.position = offset;
        return true;
    }

    bool reset(Reader& reader)
    {
        reader.released = false;
        return seek(reader, reader.origin);
    }

    void close() { m_ended = true; }

    void flush()
    {
        m_start = 0;
        m_total = 0;
        for (auto& [id, reader] : readers) {
            reader.position = 0;
        }
    }

    /// Straight after a flush only.
    void resetGlobalOffset(Offset offset)
    {
        m_start = offset;
        for (auto& [id, reader] : readers) {
            reader.position = offset;
            reader.origin = offset;
        }
    }

    void reset()
    {
        flush();
        m_ended = false;
        m_released = false;
    }

    void release()
    {
        flush();
        readers.clear();
        m_released = true;
        m_hasStorage = false;
    }

    /// @return whether there is one
    bool addReader()
    {
        if (m_released || !m_hasStorage) {
            return false;
        }
        readers[static_cast<unsigned>(readers.size())] = Reader{lapStart(), lapStart(), false};
        return true;
    }

    std::map<unsigned, Reader> readers; ///< by the order in which they were made

private:
    Offset m_size;
    Offset m_history;
    Offset m_start = 0; ///< stream offset of the first byte since the last flush
    Offset m_total = 0; ///< bytes since the last flush
    bool m_ended = false;
    bool m_released = false;
    bool m_hasStorage = true;
};

} // namespace zel::test
