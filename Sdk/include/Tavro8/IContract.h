#pragma once

#include <cstring>
#include <typeinfo>

namespace Tavro8
{
/// Root of every interface that crosses the boundary between host and module.
///
/// An object may offer several contracts; each is asked for by the text of its type name. Neither
/// `dynamic_cast` nor an exception crosses the boundary, since type information and handlers need not be
/// shared between separately built libraries. In every interface below the order of the operations is
/// binary contract; the slot numbers count a destructor as one slot.
class IContract {
public:
    /// Slot 0. What the other side calls to ask for a contract; forwards to slot 1.
    virtual void* QueryContract(const char* contractName) noexcept { return FindContract(contractName); }

    /// Slot 1. Answers a pointer to exactly the sub-object whose type has that name, or null when the object
    /// does not offer it. The pointer lives as long as the object. Any thread.
    virtual void* FindContract(const char* contractName) noexcept = 0;

    /// Slot 2. Objects with an operation `Destroy` are released with it and with nothing else.
    virtual ~IContract() = default;

protected:
    IContract() = default;
    IContract(const IContract&) = default;
    IContract& operator=(const IContract&) = default;
};

/// The name under which contract `T` is asked for.
template <typename T>
const char* contractName() noexcept
{
    return typeid(T).name();
}

/// Asks `object` for contract `T`; null when it is null or does not offer it.
template <typename T>
T* queryContract(IContract* object) noexcept
{
    return object == nullptr ? nullptr : static_cast<T*>(object->QueryContract(contractName<T>()));
}

/// Implements slot 1 for an object that offers `Contracts...`: the first whose name matches wins.
///
///     void* FindContract(const char* name) noexcept override
///     {
///         return findContractIn<IVideoSource, IDeviceChannel, IContract>(this, name);
///     }
template <typename... Contracts, typename Object>
void* findContractIn(Object* object, const char* name) noexcept
{
    void* found = nullptr;
    if (name != nullptr) {
        static_cast<void>(((std::strcmp(name, contractName<Contracts>()) == 0 &&
                            (found = static_cast<Contracts*>(object)) != nullptr) ||
                           ...));
    }
    return found;
}
}  // namespace Tavro8
