/* Objects as lines of text: the parser. zan_tables_private.h tells the form.
 *
 * Two passes over the tokens. The first looks up every name and finds the member count, so that the
 * object can be allocated; the second stores the values. What lies between the name of a field and
 * its value is refused with the path as it was written and what to write instead. A key, of the
 * object or of a parent, counts only whole: which of its fields were given is noted in a scratch
 * mask for each key, and the masks are looked at in the end.
 */
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "nearest_name.h"
#include "value_text.h"

/* "next_obj[2].ipnh.vrf_id=3", cut in pieces. */
struct token_t {
    std::string_view path; /* all before '=' */
    std::string_view name; /* of the path: before index and dots */
    bool has_index;
    uint32_t index;
    unsigned num_parts; /* behind the dots, 0 to 2 */
    std::string_view parts[2];
    std::string_view value;
};

enum target_et {
    TARGET_KEY,
    TARGET_ATTR,
    TARGET_REF,
    TARGET_UNION,
    TARGET_NPU_MASK_REQ,
    TARGET_HANDLE,
    TARGET_NUM_ELEMENTS,
};

/* What a path leads to: the kind, and the number among the fields of that kind. */
struct target_t {
    target_et kind;
    unsigned index;
};

struct parse_st {
    const zan_table_def_t *def;
    zan_table_base_st *obj; /* null in the first pass */
    uint32_t num_elements;
    uint32_t *given; /* fields given: of the key, then of each reference and union of each member */
    text_out_t why;
};

static bool refuse(parse_st *p, std::initializer_list<std::string_view> reason)
{
    p->why.len = 0;
    for (std::string_view piece : reason)
        text_put(&p->why, piece);
    return false;
}

/* ---- Tokens ---- */

static bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

static std::string_view before(std::string_view text, size_t at)
{
    return std::string_view(text.data(), at);
}

static std::string_view behind(std::string_view text, size_t at)
{
    return std::string_view(text.data() + at + 1, text.size() - at - 1);
}

/* The next token of `*rest`, which moves behind it; empty at the end. */
static std::string_view next_word(const char **rest)
{
    const char *start = *rest;
    while (*start && is_blank(*start))
        start++;
    const char *end = start;
    while (*end && !is_blank(*end))
        end++;
    *rest = end;
    return std::string_view(start, (size_t)(end - start));
}

static bool split_index(parse_st *p, token_t *token)
{
    size_t bracket = token->name.find('[');
    if (bracket == token->name.npos)
        return true;
    std::string_view digits = behind(token->name, bracket);
    token->name = before(token->name, bracket);
    if (digits.empty() || digits.back() != ']')
        return refuse(p, {token->path, ": write an index as ", token->name, "[0]"});
    digits.remove_suffix(1);
    uint64_t index;
    text_out_t unused = {};
    if (!number_parse(digits, ZAN_ELEMENTS_MAX - 1, &index, &unused))
        return refuse(p, {token->path, ": '", digits, "' is no index: write 0 to 65535"});
    token->has_index = true;
    token->index = (uint32_t)index;
    return true;
}

static bool split_token(parse_st *p, std::string_view word, token_t *token)
{
    *token = {};
    size_t equals = word.find('=');
    if (equals == word.npos)
        return refuse(p, {"'", word, "' has no value: write <field>=<value>"});
    token->path = token->name = before(word, equals);
    token->value = behind(word, equals);
    if (token->value.empty())
        return refuse(p, {token->path, ": has no value: write one behind the '='"});

    size_t dot = token->path.find('.');
    if (dot != token->path.npos) {
        token->name = before(token->path, dot);
        std::string_view rest = behind(token->path, dot);
        size_t second = rest.find('.');
        token->num_parts = second == rest.npos ? 1 : 2;
        token->parts[0] = second == rest.npos ? rest : before(rest, second);
        if (second != rest.npos)
            token->parts[1] = behind(rest, second);
    }
    return split_index(p, token);
}

/* ---- Names ---- */

template <typename def_t>
static bool find_by_name(const def_t *defs, unsigned count, const char *def_t::*name_of,
                         std::string_view name, unsigned *index)
{
    for (unsigned i = 0; i < count; i++)
        if (name == defs[i].*name_of) {
            *index = i;
            return true;
        }
    return false;
}

/* A union that another one stores has no text of its own. */
static bool find_union(const zan_table_def_t *def, std::string_view name, unsigned *index)
{
    return find_by_name(def->unions, def->num_unions, &zan_union_def_t::attr, name, index) &&
           !def->unions[*index].nested_in;
}

template <typename visit_t> static void for_each_name(const zan_table_def_t *def, visit_t visit)
{
    for (unsigned i = 0; i < def->num_keys; i++)
        visit(def->keys[i].name);
    for (unsigned i = 0; i < def->num_attrs; i++)
        visit(def->attrs[i].name);
    for (unsigned i = 0; i < def->num_refs; i++)
        visit(def->refs[i].stem);
    for (unsigned i = 0; i < def->num_unions; i++)
        if (!def->unions[i].nested_in)
            visit(def->unions[i].attr);
    for (const char *name : {"npu_mask_req", "handle"})
        visit(name);
    if (def->num_elements_offset)
        visit("num_elements");
}

/* End a refusal: the name that was meant, or all there are. `for_each` visits the names. */
template <typename for_each_t>
static bool suggest(parse_st *p, std::string_view word, for_each_t for_each)
{
    nearest_name_t nearest = nearest_name_begin(word);
    for_each([&nearest](std::string_view name) { nearest_name_offer(&nearest, name); });
    if (!nearest.best.empty()) {
        for (std::string_view piece :
             {std::string_view("; did you mean "), nearest.best, std::string_view("?")})
            text_put(&p->why, piece);
        return false;
    }
    std::string_view separator = "; it has ";
    for_each([p, &separator](std::string_view name) {
        text_put(&p->why, separator);
        text_put(&p->why, name);
        separator = ", ";
    });
    return false;
}

static bool find_target(parse_st *p, const token_t *token, target_t *target)
{
    const zan_table_def_t *def = p->def;
    unsigned *index = &target->index;
    *target = {};
    if (token->name == "npu_mask_req")
        target->kind = TARGET_NPU_MASK_REQ;
    else if (token->name == "handle")
        target->kind = TARGET_HANDLE;
    else if (token->name == "num_elements" && def->num_elements_offset)
        target->kind = TARGET_NUM_ELEMENTS;
    else if (find_by_name(def->keys, def->num_keys, &zan_field_def_t::name, token->name, index))
        target->kind = TARGET_KEY;
    else if (find_by_name(def->attrs, def->num_attrs, &zan_field_def_t::name, token->name, index))
        target->kind = TARGET_ATTR;
    else if (find_by_name(def->refs, def->num_refs, &zan_ref_def_t::stem, token->name, index))
        target->kind = TARGET_REF;
    else if (find_union(def, token->name, index))
        target->kind = TARGET_UNION;
    else {
        refuse(p, {def->name, " has no field '", token->name, "'"});
        return suggest(p, token->name, [def](auto visit) { for_each_name(def, visit); });
    }
    return true;
}

/* ---- Shape: does the path have the index and the parts that the field wants? ---- */

static bool check_index(parse_st *p, const token_t *token, bool wanted, uint32_t limit)
{
    char digits[16];
    text_out_t number = {digits, sizeof digits, 0, false};
    if (!wanted && token->has_index)
        return refuse(p, {token->path, ": has one value only: write it without the index"});
    if (wanted && !token->has_index)
        return refuse(p, {token->path, ": has several values: write ", token->name, "[0]"});
    if (wanted && token->index >= limit) {
        text_number(&number, limit - 1, 10);
        text_end(&number);
        return refuse(p, {token->path, ": the index goes from 0 to ", digits});
    }
    return true;
}

static bool check_shape(parse_st *p, const token_t *token, target_t target)
{
    const zan_table_def_t *def = p->def;
    switch (target.kind) {
    case TARGET_ATTR: {
        const zan_field_def_t *attr = &def->attrs[target.index];
        bool repeated = attr->shape == ZAN_SHAPE_REPEATED;
        if (token->num_parts)
            break;
        return check_index(p, token, attr->shape != ZAN_SHAPE_SINGLE,
                           repeated ? ZAN_ELEMENTS_MAX : attr->count);
    }
    case TARGET_REF:
        if (token->num_parts != 1)
            return refuse(p, {token->path, ": is a reference: write ", token->name,
                              ".<key field>=, or ", token->name, ".handle="});
        return check_index(p, token, def->refs[target.index].repeated != 0, ZAN_ELEMENTS_MAX);
    case TARGET_UNION:
        if (token->num_parts == 1)
            return refuse(p, {token->path, ": lacks the key field: write ", token->path,
                              ".<key field>=, or ", token->path, ".handle="});
        return check_index(p, token, def->unions[target.index].repeated != 0, ZAN_ELEMENTS_MAX);
    default:
        if (token->num_parts)
            break;
        return check_index(p, token, false, 0);
    }
    return refuse(p, {token->path, ": has a plain value: write ", token->name, "="});
}

static bool is_repeated(const zan_table_def_t *def, target_t target)
{
    switch (target.kind) {
    case TARGET_ATTR:
        return def->attrs[target.index].shape == ZAN_SHAPE_REPEATED;
    case TARGET_REF:
        return def->refs[target.index].repeated != 0;
    case TARGET_UNION:
        return def->unions[target.index].repeated != 0;
    default:
        return false;
    }
}

/* ---- Values ---- */

/* Begin a refusal with the path; the reason follows in p->why. */
static text_out_t *why_at(parse_st *p, const token_t *token)
{
    refuse(p, {token->path, ": "});
    return &p->why;
}

static bool given_twice(parse_st *p, const token_t *token)
{
    return refuse(p, {token->path, ": is given twice: write it once"});
}

/* Mark a field of a key as given. */
static bool mark_given(parse_st *p, const token_t *token, uint32_t *given, unsigned field)
{
    if (*given & 1u << field)
        return given_twice(p, token);
    *given |= 1u << field;
    return true;
}

/* The scratch mask of a reference or union; references count first. */
static uint32_t *given_of(parse_st *p, unsigned ref_or_union, uint32_t member)
{
    size_t per_ref = p->num_elements ? p->num_elements : 1;
    return &p->given[1 + ref_or_union * per_ref + member];
}

static bool set_attr(parse_st *p, const token_t *token, const zan_field_def_t *attr)
{
    uint32_t at = token->index;
    uint8_t *set = zan_obj_attr_set(attr, p->obj, at, p->num_elements);
    if (*set && attr->shape != ZAN_SHAPE_ARRAY) /* an array has one is-set byte for all */
        return given_twice(p, token);
    *set = 1;
    return value_parse(attr, token->value, zan_obj_attr(attr, p->obj, at), why_at(p, token));
}

/* A field of the parent's key, or its handle. */
static bool set_parent(parse_st *p, const token_t *token, uint16_t parent_id,
                       std::string_view field_name, zan_ref_value_st *ref, uint32_t *given)
{
    if (field_name == "handle") {
        if (ref->refhdl_set)
            return given_twice(p, token);
        ref->refhdl_set = 1;
        return number_parse(token->value, UINT64_MAX, &ref->refhdl, why_at(p, token));
    }
    const zan_table_def_t *parent = zan_table_def_get(parent_id);
    unsigned i;
    if (!find_by_name(parent->keys, parent->num_keys, &zan_field_def_t::name, field_name, &i)) {
        refuse(p, {token->path, ": the key of ", parent->name, " has no field '", field_name, "'"});
        return suggest(p, field_name, [parent](auto visit) {
            for (unsigned k = 0; k < parent->num_keys; k++)
                visit(parent->keys[k].name);
            visit("handle");
        });
    }
    ref->refkey_set = 1;
    return mark_given(p, token, given, i) &&
           value_parse(&parent->keys[i], token->value,
                       (uint8_t *)zan_ref_key(ref) + parent->keys[i].offset, why_at(p, token));
}

static bool set_union(parse_st *p, const token_t *token, const zan_union_def_t *u,
                      zan_ref_value_st *ref, uint32_t *given)
{
    std::string_view stem = token->num_parts ? token->parts[0] : token->value;
    unsigned i = 0;
    uint32_t selector = 0;
    if (token->num_parts || stem != "none") {
        if (!find_by_name(u->variants, u->num_variants, &zan_variant_def_t::stem, stem, &i)) {
            refuse(p, {token->path, ": ", u->attr, " has no variant '", stem, "'"});
            return suggest(p, stem, [u, token](auto visit) {
                for (unsigned v = 0; v < u->num_variants; v++)
                    visit(u->variants[v].stem);
                if (!token->num_parts)
                    visit("none");
            });
        }
        selector = u->variants[i].selector;
    }
    if (ref->is_set && ref->selector != selector)
        return refuse(p, {token->path, ": ", u->attr, " has another variant already, ",
                          ref->selector ? u->variants[ref->selector - 1].stem : "none",
                          ": choose one"});
    ref->is_set = 1;
    ref->selector = selector;
    if (!token->num_parts)
        return true;
    return set_parent(p, token, u->variants[i].parent_id, token->parts[1], ref, given);
}

static bool set_field(parse_st *p, const token_t *token, target_t target)
{
    const zan_table_def_t *def = p->def;
    uint32_t member = token->index;
    switch (target.kind) {
    case TARGET_KEY: {
        const zan_field_def_t *field = &def->keys[target.index];
        return mark_given(p, token, &p->given[0], target.index) &&
               value_parse(field, token->value, (uint8_t *)zan_obj_key(def, p->obj) + field->offset,
                           why_at(p, token));
    }
    case TARGET_ATTR:
        return set_attr(p, token, &def->attrs[target.index]);
    case TARGET_REF: {
        const zan_ref_def_t *ref = &def->refs[target.index];
        return set_parent(p, token, ref->parent_id, token->parts[0],
                          zan_obj_ref(ref, p->obj, member), given_of(p, target.index, member));
    }
    case TARGET_UNION: {
        const zan_union_def_t *u = &def->unions[target.index];
        return set_union(p, token, u, zan_obj_union(u, p->obj, member),
                         given_of(p, def->num_refs + target.index, member));
    }
    case TARGET_NPU_MASK_REQ:
        if (*zan_obj_npu_mask_req_set(def, p->obj))
            return given_twice(p, token);
        *zan_obj_npu_mask_req_set(def, p->obj) = 1;
        return number_parse(token->value, UINT64_MAX, zan_obj_npu_mask_req(def, p->obj),
                            why_at(p, token));
    case TARGET_HANDLE:
        if (p->obj->obj_handle)
            return given_twice(p, token);
        return number_parse(token->value, UINT64_MAX, &p->obj->obj_handle, why_at(p, token));
    case TARGET_NUM_ELEMENTS:
        return true; /* the first pass took it */
    }
    return false;
}

/* ---- Whole keys ---- */

/* Refuse a key of which only some fields were given. `owner` is its path with the dot, or empty. */
static bool check_whole(parse_st *p, const zan_table_def_t *def, uint32_t given,
                        std::initializer_list<std::string_view> owner)
{
    if (!given || given == (uint32_t)((uint64_t{1} << def->num_keys) - 1))
        return true;
    refuse(p, owner);
    text_put(&p->why, "the key is not whole: give ");
    const char *separator = "";
    for (unsigned i = 0; i < def->num_keys; i++) {
        if (given & 1u << i)
            continue;
        text_put(&p->why, separator);
        text_put(&p->why, def->keys[i].name);
        separator = ", ";
    }
    text_put(&p->why, " too");
    return false;
}

static bool check_whole_ref(parse_st *p, uint16_t parent_id, unsigned ref_or_union,
                            const char *name, bool repeated, uint32_t member)
{
    char index[16] = "";
    if (repeated) {
        text_out_t t = {index, sizeof index, 0, false};
        text_char(&t, '[');
        text_number(&t, member, 10);
        text_char(&t, ']');
        text_end(&t);
    }
    return check_whole(p, zan_table_def_get(parent_id), *given_of(p, ref_or_union, member),
                       {name, index, ": "});
}

static bool check_keys(parse_st *p)
{
    const zan_table_def_t *def = p->def;
    if (!check_whole(p, def, p->given[0], {}))
        return false;
    for (unsigned i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *ref = &def->refs[i];
        uint32_t count = ref->repeated ? p->num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            if (!check_whole_ref(p, ref->parent_id, i, ref->stem, ref->repeated != 0, member))
                return false;
    }
    for (unsigned i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        uint32_t count = u->nested_in ? 0 : u->repeated ? p->num_elements : 1;
        for (uint32_t member = 0; member < count; member++) {
            uint32_t selector = zan_obj_union(u, p->obj, member)->selector;
            if (selector && !check_whole_ref(p, u->variants[selector - 1].parent_id,
                                             def->num_refs + i, u->attr, u->repeated != 0, member))
                return false;
        }
    }
    return true;
}

/* ---- The passes ---- */

/* First pass: every path leads somewhere, and the member count is known. */
static bool count_members(parse_st *p, const char *text)
{
    token_t token;
    target_t target;
    uint64_t stated = ZAN_ELEMENTS_MAX;
    bool is_stated = false;
    for (std::string_view word; !(word = next_word(&text)).empty();) {
        if (!split_token(p, word, &token) || !find_target(p, &token, &target) ||
            !check_shape(p, &token, target))
            return false;
        if (is_repeated(p->def, target))
            p->num_elements = std::max(p->num_elements, token.index + 1);
        if (target.kind != TARGET_NUM_ELEMENTS)
            continue;
        if (is_stated)
            return given_twice(p, &token);
        is_stated = true;
        if (!number_parse(token.value, ZAN_ELEMENTS_MAX, &stated, why_at(p, &token)))
            return false;
    }
    if (is_stated && stated < p->num_elements)
        return refuse(p, {"num_elements: is less than the greatest index asks for: raise it, or "
                          "leave it out"});
    if (is_stated)
        p->num_elements = (uint32_t)stated;
    return true;
}

/* Second pass: store the values. */
static bool set_fields(parse_st *p, const char *text)
{
    token_t token;
    target_t target;
    for (std::string_view word; !(word = next_word(&text)).empty();)
        if (!split_token(p, word, &token) || !find_target(p, &token, &target) ||
            !set_field(p, &token, target))
            return false;
    return check_keys(p);
}

static bool allocate(parse_st *p)
{
    size_t refs = (size_t)p->def->num_refs + p->def->num_unions;
    p->given =
        (uint32_t *)calloc(1 + refs * (p->num_elements ? p->num_elements : 1), sizeof *p->given);
    p->obj = zan_obj_ctor(p->def, 0, p->num_elements);
    return (p->given && p->obj) || refuse(p, {"out of memory: try again with fewer members"});
}

zan_table_base_st *zan_obj_parse(const zan_table_def_t *def, const char *text, char *why,
                                 size_t why_size)
{
    parse_st p = {def, nullptr, 0, nullptr, {why, why_size, 0, false}};
    bool good = count_members(&p, text) && allocate(&p) && set_fields(&p, text);
    if (good) {
        p.obj->key_len = p.given[0] ? def->key_size : 0;
        p.why.len = 0;
    } else {
        free(p.obj);
        p.obj = nullptr;
    }
    text_end(&p.why);
    free(p.given);
    return p.obj;
}
