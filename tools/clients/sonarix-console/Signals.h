#pragma once

/// The signals that concern a person at a terminal, as a descriptor to wait for: SIGINT, SIGTERM, SIGHUP, SIGWINCH and
/// SIGCONT, which do nothing else from the construction on. One to a process, on its one thread.
class Signals final
{
public:
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int Descriptor() const ///< can be read when there is one
    {
        return m_descriptor;
    }
    /// The next one; 0 where there is none.
    int Take();

private:
    int m_descriptor;
};
