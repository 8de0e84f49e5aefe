// CQzfsVector: the growable array under every index cache and the disk table.
//
// Elements are never constructed or destroyed by the vector itself: a
// callback (m_operator) makes them empty, releases them, copies them and
// tells whether one is free. Misuse and exhaustion end the process, since a
// cache that cannot keep its shape would hand out wrong nodes.
#ifndef QZFS_VECTOR_H
#define QZFS_VECTOR_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

// Operator codes passed to the element callback.
enum {
    RVFSVO_INIT = 0,     // make the element empty, releasing nothing
    RVFSVO_UNINIT = 1,   // release what the element holds: the vector is going away
    RVFSVO_FREE = 2,     // release one element
    RVFSVO_COPY = 3,     // shallow copy of the first argument into the second
    RVFSVO_IS_FREE = 4,  // 1 when the element is empty
};

template <typename IndexType, typename ValueType, typename FuncType, unsigned char Flag>
class CQzfsVector {
public:
    CQzfsVector(FuncType op, IndexType max_size, IndexType increment, IndexType invalid_index,
                const char* name)
        : m_operator(op),
          m_data(nullptr),
          m_size(0),
          m_next_free(invalid_index),
          m_max_size(max_size),
          m_increment(increment),
          m_flag(1),
          m_invalid_index(invalid_index),
          m_name(strdup(name != nullptr ? name : ""))
    {
        (void)Flag;
        if (m_operator == nullptr || m_name == nullptr)
            exit(1);
    }

    ~CQzfsVector()
    {
        clear();
        free(m_name);
    }

    // Releases every element (code 1) and the array; the vector is empty
    // afterwards and grows again from nothing.
    void clear()
    {
        for (IndexType i = 0; i < m_size; i++)
            m_operator(m_data[i], m_data[i], RVFSVO_UNINIT);
        delete[] m_data;
        m_data = nullptr;
        m_size = 0;
        m_next_free = m_invalid_index;
    }

    CQzfsVector(const CQzfsVector&) = delete;
    CQzfsVector& operator=(const CQzfsVector&) = delete;

    // The element at `index`, growing the vector up to it.
    ValueType& operator[](IndexType index)
    {
        if (index >= m_max_size)
            exit(1);
        while (index >= m_size) {
            if (vector_increment() == 0)
                exit(1);
        }
        return m_data[index];
    }

    // Grows by one step (less at the limit). 0 when the limit is reached.
    int vector_increment()
    {
        if (m_size >= m_max_size)
            return 0;
        // The last step stops at the limit. Written as a difference so that
        // an increment above the limit cannot wrap around.
        IndexType grown = IndexType(m_max_size - m_size) < m_increment
                              ? m_max_size
                              : IndexType(m_size + m_increment);
        ValueType* data = new (std::nothrow) ValueType[grown];
        if (data == nullptr)
            exit(1);
        for (IndexType i = 0; i < m_size; i++)
            m_operator(m_data[i], data[i], RVFSVO_COPY);
        for (IndexType i = m_size; i < grown; i++)
            m_operator(data[i], data[i], RVFSVO_INIT);
        delete[] m_data;
        m_data = data;
        if (m_next_free == m_invalid_index)
            m_next_free = m_size;
        m_size = grown;
        return 1;
    }

    // Moves `count` elements from `from` to `to`. Moving up also carries the
    // element just behind the stretch; the places left behind become empty.
    int move(IndexType from, IndexType count, IndexType to)
    {
        if (count > m_max_size || to >= m_max_size || from >= m_max_size)
            exit(1);
        if (to > m_max_size - count || count == 0)
            return -1;
        if (to > from) {
            while (uint64_t(count) + to >= m_size) {
                if (vector_increment() == 0)
                    exit(1);
            }
            for (uint64_t i = uint64_t(count) + to + 1; i-- > to;) {
                IndexType target = IndexType(i);
                IndexType source = IndexType(i + from - to);
                m_operator(m_data[source], m_data[target], RVFSVO_COPY);
                m_operator(m_data[source], m_data[source], RVFSVO_INIT);
            }
        } else if (to < from) {
            // The stretch has to exist before it can be read.
            while (uint64_t(from) + count > m_size) {
                if (vector_increment() == 0)
                    exit(1);
            }
            for (uint64_t i = from; i < uint64_t(from) + count; i++) {
                IndexType source = IndexType(i);
                IndexType target = IndexType(i + to - from);
                m_operator(m_data[source], m_data[target], RVFSVO_COPY);
                m_operator(m_data[source], m_data[source], RVFSVO_INIT);
            }
        }
        return 0;
    }

    IndexType size() const { return m_size; }
    // Iteration over the allocated elements.
    ValueType* begin() { return m_data; }
    ValueType* end() { return m_data + m_size; }
    IndexType max_size() const { return m_max_size; }
    IndexType invalid_index() const { return m_invalid_index; }
    const char* name() const { return m_name; }
    // True when the element at `index` (below size()) is empty.
    bool is_free(IndexType index) { return m_operator(m_data[index], m_data[index], RVFSVO_IS_FREE) != 0; }
    // Releases one element (code 2).
    void free_element(IndexType index) { m_operator(m_data[index], m_data[index], RVFSVO_FREE); }

    FuncType m_operator;
    ValueType* m_data;
    IndexType m_size;
    IndexType m_next_free;
    IndexType m_max_size;
    IndexType m_increment;
    unsigned char m_flag;
    IndexType m_invalid_index;
    char* m_name;
};

#endif
