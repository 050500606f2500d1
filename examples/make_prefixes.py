#!/usr/bin/env python3
"""Make a routing table of about 20,000 prefixes that looks like the Internet's.

The prefixes are invented; what is real is how often each prefix length occurs, taken from a full
table of 901,899 IPv4 and 160,147 IPv6 prefixes and scaled down. The output is the same every time:
IPv4 first, then IPv6, each in address order, no repeats, no host bits, nothing private, reserved,
link-local, multicast or set aside for documentation.

    examples/make_prefixes.py examples/prefixes.txt.gz
"""
import gzip
import ipaddress
import random
import sys

TOTAL = 20_000
SEED = 20240611

# Prefixes of each length in the full table; rare lengths stand together in one entry there and are
# shared out evenly here.
IPV4 = {8: 16, 9: 13, 10: 38, 11: 103, 12: 299, 13: 581, 14: 1203, 15: 2100, 16: 13490, 17: 8235,
        18: 13798, 19: 24870, 20: 42611, 21: 50750, 22: 108623, 23: 96510, 24: 537698, 32: 886}
IPV4_TOGETHER = {(25, 31): 75}
IPV6 = {28: 193, 29: 4371, 30: 650, 31: 284, 32: 22548, 33: 2926, 34: 2603, 35: 1043, 36: 5996,
        37: 880, 38: 1617, 39: 1377, 40: 13418, 41: 903, 42: 2301, 43: 1001, 44: 14365, 45: 1553,
        46: 3039, 47: 3153, 48: 75488, 64: 184}
IPV6_TOGETHER = {(16, 27): 109, (49, 63): 62, (65, 128): 83}

EXCLUDED = [ipaddress.ip_network(text) for text in (
    "0.0.0.0/8", "10.0.0.0/8", "100.64.0.0/10", "127.0.0.0/8", "169.254.0.0/16", "172.16.0.0/12",
    "192.0.0.0/24", "192.0.2.0/24", "192.88.99.0/24", "192.168.0.0/16", "198.18.0.0/15",
    "198.51.100.0/24", "203.0.113.0/24", "224.0.0.0/3",
    "2001::/23", "2001:db8::/32", "2002::/16", "3fff::/20")]
IPV6_UNICAST = ipaddress.ip_network("2000::/3")


def weights(exact, together):
    """The number of prefixes of each length, the ranges shared out."""
    result = dict(exact)
    for (first, last), count in together.items():
        for length in range(first, last + 1):
            result[length] = result.get(length, 0) + count / (last - first + 1)
    return result


def allowed(network):
    return not any(network.version == other.version and network.overlaps(other)
                   for other in EXCLUDED)


def draw(rng, version, length):
    """A random prefix of that length that is allowed."""
    bits = 32 if version == 4 else 128
    while True:
        address = rng.getrandbits(length) << (bits - length)
        if version == 6:  # the top three bits of global unicast
            address = address & ((1 << 125) - 1) | int(IPV6_UNICAST.network_address)
        network = ipaddress.ip_network((address, length))
        if allowed(network):
            return network


def make(rng, version, lengths, full):
    """Scale every length down, with the remainders going to the largest fractions."""
    share = {length: count * TOTAL / full for length, count in lengths.items()}
    wanted = {length: int(count) for length, count in share.items()}
    missing = round(sum(share.values())) - sum(wanted.values())
    for length in sorted(share, key=lambda n: wanted[n] - share[n])[:missing]:
        wanted[length] += 1
    found = set()
    for length, count in sorted(wanted.items()):
        of_length = set()
        while len(of_length) < count:
            of_length.add(draw(rng, version, length))
        found |= of_length
    return sorted(found)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    rng = random.Random(SEED)
    lengths = {4: weights(IPV4, IPV4_TOGETHER), 6: weights(IPV6, IPV6_TOGETHER)}
    full = sum(sum(of_version.values()) for of_version in lengths.values())
    prefixes = [p for version in (4, 6) for p in make(rng, version, lengths[version], full)]
    text = "".join(f"{prefix}\n" for prefix in prefixes)
    with open(sys.argv[1], "wb") as out:  # no name, no time: the same bytes every time
        with gzip.GzipFile(filename="", mode="wb", compresslevel=9, fileobj=out, mtime=0) as packed:
            packed.write(text.encode())
    print(f"{len(prefixes)} prefixes")


if __name__ == "__main__":
    main()
