#pragma once

#include <atomic>
#include <utility>

/// Process-wide replacement of a creation function; null in the product, set by tests and simulations. A static member
/// of the class whose Create() uses it, or a static object beside that function. `Factory` is a pointer to a function,
/// or to an object with an operation Create(). The pointer is not owned. Safe from any thread.
///
///     static inline FactoryOverride<std::shared_ptr<WidgetIF> (*)(int)> s_factoryOverride;
///     std::shared_ptr<WidgetIF> Widget::Create(int size)
///     {
///         const auto factory = s_factoryOverride.Get();
///         return factory != nullptr ? factory(size) : std::make_shared<Widget>(size);
///     }
template <class Factory>
class FactoryOverride final
{
public:
    constexpr FactoryOverride() = default;

    Factory Get() const
    {
        return m_factory.load();
    }

    void Set(Factory factory)
    {
        m_factory = factory;
    }

private:
    std::atomic<Factory> m_factory{nullptr};
};
