// Time and chance for the kit's parts, through small interfaces, so that a
// test drives them instead of waiting for the wall clock.
#pragma once

#include <chrono>
#include <random>

namespace nxahost {

// The time the kit's parts go by: monotonic, never set back.
class Clock {
public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    virtual ~Clock() = default;
    virtual time_point now() const = 0;
};

// std::chrono::steady_clock.
class SteadyClock : public Clock {
public:
    time_point now() const override { return std::chrono::steady_clock::now(); }
};

// The random part of a delay.
class Jitter {
public:
    virtual ~Jitter() = default;
    // A value from 0 to `most` (both included), each equally likely.
    virtual std::chrono::milliseconds upTo(std::chrono::milliseconds most) = 0;
};

// Jitter from a generator seeded from std::random_device.
class RandomJitter : public Jitter {
public:
    RandomJitter() : random_(std::random_device{}()) {}
    std::chrono::milliseconds upTo(std::chrono::milliseconds most) override {
        if (most.count() <= 0) return std::chrono::milliseconds(0);
        std::uniform_int_distribution<long long> draw(0, most.count());
        return std::chrono::milliseconds(draw(random_));
    }

private:
    std::mt19937_64 random_;
};

}  // namespace nxahost
