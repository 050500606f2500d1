/* Numbers that a seed decides, for the order of stepped NPUs and the intervals of retries. */
#ifndef ZAN_HOST_RANDOM_H
#define ZAN_HOST_RANDOM_H

#include <stdint.h>

/* The next of 64 random bits: splitmix64. */
inline uint64_t host_random_next(uint64_t *state)
{
    *state += 0x9e3779b97f4a7c15u;
    uint64_t z = *state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

#endif
