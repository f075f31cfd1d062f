#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

namespace kelvo::bench
{
/// A file descriptor that is closed with its owner.
class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int number) noexcept : fd(number) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }

    int get() const noexcept { return fd; }

private:
    int fd = -1;
};

/// The result of a system call, or an exception that says which one failed and why.
template <typename Result>
Result checked(Result result, const char* call)
{
    if (result < 0)
        throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
    return result;
}
}  // namespace kelvo::bench
