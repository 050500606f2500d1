/* A routing table's prefixes, as a file lists them: one CIDR prefix a line, IPv4 or IPv6, plain or
 * gzip. */
#ifndef ZANCTL_PREFIXES_H
#define ZANCTL_PREFIXES_H

#include "zan_types.h"

#include <string>
#include <vector>

struct prefixes_t {
    std::vector<zan_ipv4_prefix_t> ipv4; /* in the order of the file, each once */
    std::vector<zan_ipv6_prefix_t> ipv6;
    size_t repeats; /* lines left out, because an earlier one says the same */
};

/* Add the prefixes of a file; false and a reason that names the line. */
bool read_prefixes(const std::string &file, prefixes_t *out, std::string *why);
/* Leave out the repeats. */
void drop_repeats(prefixes_t *prefixes);

#endif
