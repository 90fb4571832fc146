// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <initializer_list>

namespace OrvLab {

/// Numbers that follow from a seed alone, on every machine (splitmix64).
class Random {
public:
    explicit Random(std::uint64_t seed) : state(seed) {}

    std::uint64_t Next() {
        std::uint64_t number = state += 0x9e3779b97f4a7c15U;
        number = (number ^ (number >> 30U)) * 0xbf58476d1ce4e5b9U;
        number = (number ^ (number >> 27U)) * 0x94d049bb133111ebU;
        return number ^ (number >> 31U);
    }

    /// From 0 to `count` - 1.
    unsigned Below(unsigned count) { return static_cast<unsigned>((Next() >> 32U) * count >> 32U); }
    /// From `least` to `most`.
    int Between(int least, int most) {
        return least + static_cast<int>(Below(static_cast<unsigned>(most - least) + 1));
    }
    /// True once in `often` times on average; never for 0.
    bool OneIn(unsigned often) { return often != 0 && Below(often) == 0; }

    /// An index into `weights`, each as probable as it is heavy.
    unsigned Weighted(std::initializer_list<unsigned> weights) {
        unsigned sum = 0;
        for (const unsigned weight : weights)
            sum += weight;
        unsigned rest = Below(sum);
        unsigned index = 0;
        for (const unsigned weight : weights) {
            if (rest < weight)
                break;
            rest -= weight;
            ++index;
        }
        return index;
    }

private:
    std::uint64_t state;
};

} // namespace OrvLab
