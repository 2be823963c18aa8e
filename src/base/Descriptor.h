#pragma once

#include <unistd.h>
#include <utility>

/// Closes a file descriptor in its destructor; a negative one is ignored.
class Descriptor final
{
public:
    explicit Descriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    ~Descriptor()
    {
        if (m_descriptor >= 0)
        {
            ::close(m_descriptor);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const
    {
        return m_descriptor;
    }
    int Release()
    {
        return std::exchange(m_descriptor, -1);
    }

private:
    int m_descriptor;
};
