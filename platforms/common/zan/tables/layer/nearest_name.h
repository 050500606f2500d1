/* The name that somebody meant who wrote another one: offer all there are, then ask for the best.
 *
 * A word that stands in a name, or a name in the word, is nearer than any number of changed
 * letters: "mtu" means ipv4_mtu. */
#ifndef ZAN_LAYER_NEAREST_NAME_H
#define ZAN_LAYER_NEAREST_NAME_H

#include <algorithm>
#include <string_view>

#define NEAREST_NAME_MAX 64u /* longer words and names are near nothing */

struct nearest_name_t {
    std::string_view word;
    std::string_view best; /* empty until a name was near enough */
    size_t distance;       /* of the best; start with the first that is too far */
};

/* Letters to insert, delete, change or swap with their neighbour to make one word of the other. */
static inline size_t edit_distance(std::string_view a, std::string_view b)
{
    size_t rows[3][NEAREST_NAME_MAX + 1]; /* of the last three letters of a, in turn */
    for (size_t j = 0; j <= b.size(); j++)
        rows[0][j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t *row = rows[i % 3], *last = rows[(i - 1) % 3], *before_last = rows[(i + 1) % 3];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t changed = last[j - 1] + (a[i - 1] != b[j - 1]);
            row[j] = std::min({row[j - 1] + 1, last[j] + 1, changed});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], before_last[j - 2] + 1);
        }
    }
    return rows[a.size() % 3][b.size()];
}

static inline nearest_name_t nearest_name_begin(std::string_view word)
{
    return {word, {}, word.size() / 2 + 1};
}

static inline void nearest_name_offer(nearest_name_t *n, std::string_view name)
{
    if (n->word.size() > NEAREST_NAME_MAX || name.size() > NEAREST_NAME_MAX)
        return;
    bool within = (n->word.size() >= 3 && name.find(n->word) != name.npos) ||
                  (name.size() >= 3 && n->word.find(name) != n->word.npos);
    size_t distance = within ? 1 : edit_distance(n->word, name);
    if (distance < n->distance) {
        n->best = name;
        n->distance = distance;
    }
}

#endif
