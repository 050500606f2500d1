/* Scenarios: text files of operations with what they must come to. Each runs with one and with
 * three NPUs, with NPU threads and stepped, in synchronous and in asynchronous batches.
 *
 *   create|update|delete TABLE FIELDS   must succeed
 *   hold TABLE FIELDS                   a delete that must be held back for children
 *   refuse CODE create|update|delete .. must be refused with the code, and leave all as it was
 *   get TABLE FIELDS                    must be found
 *   dump TABLE                          the table holds exactly the objects of the lines that
 *                                       follow, in order:
 *   = FIELDS
 *   # a comment
 *
 * At the end everything that was created is deleted in the order of its creation, parents first, so
 * that the graph comes down by held deletes; nothing may be left anywhere.
 */
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "server_bench.h"

using namespace bench;

namespace
{

struct variant_t {
    uint32_t npus;
    bool stepped;
    uint64_t seed;
    bool async;
    const char *name;
};

const variant_t variants[] = {
    {1, false, 0, false, "one_npu"},           {3, false, 0, false, "three_npus"},
    {3, false, 0, true, "three_npus_async"},   {1, true, 1, true, "stepped_one_npu_async"},
    {3, true, 2, false, "stepped_three_npus"}, {3, true, 3, true, "stepped_three_npus_async"},
};

zan_rcode code_named(const std::string &name)
{
    if (name == "EOK")
        return EOK;
#define CODE(constant, value, words)                                                               \
    if (name == #constant)                                                                         \
        return constant;
    ZAN_RCODES(CODE)
#undef CODE
    return (zan_rcode)strtoul(name.c_str(), nullptr, 0);
}

class scenario_t
{
public:
    scenario_t(const std::string &path, const variant_t &variant) : path_(path), variant_(variant)
    {
    }

    void run_all()
    {
        std::ifstream file(path_);
        ASSERT_TRUE(file) << path_;
        std::string text;
        while (std::getline(file, text) && !testing::Test::HasFatalFailure()) {
            line_++;
            if (!text.empty() && text[0] != '#')
                run_line(text);
        }
        check_dump();
        settle();
        EXPECT_EQ(hardware_differs(variant_.npus), "") << path_;
        EXPECT_GT(checked_, 0u) << path_ << " checks nothing";
        delete_all();
    }

private:
    std::string where() const
    {
        return path_ + ":" + std::to_string(line_);
    }

    static std::string word(std::string *text)
    {
        const size_t blank = text->find(' ');
        const std::string first = text->substr(0, blank);
        *text = blank == std::string::npos ? "" : text->substr(blank + 1);
        return first;
    }

    void run_line(std::string text)
    {
        const std::string verb = word(&text);
        if (verb == "=") {
            expected_.push_back(text);
            return;
        }
        check_dump();
        if (verb == "create")
            send(text, ZAN_TABLE_CREATE, EOK);
        else if (verb == "update")
            send(text, ZAN_TABLE_UPDATE, EOK);
        else if (verb == "delete")
            send(text, ZAN_TABLE_DELETE, EOK);
        else if (verb == "hold")
            send(text, ZAN_TABLE_DELETE, ZAN_RC_DELAY_DELETE);
        else if (verb == "get")
            EXPECT_EQ(read(text).rc, (zan_rcode)EOK) << where();
        else if (verb == "dump")
            dumping_ = text;
        else if (verb == "refuse")
            refuse(text);
        else
            FAIL() << where() << ": no such line";
    }

    void refuse(std::string text)
    {
        const zan_rcode code = code_named(word(&text));
        const std::string verb = word(&text);
        const zan_table_operation_et operation = verb == "create"   ? ZAN_TABLE_CREATE
                                                 : verb == "update" ? ZAN_TABLE_UPDATE
                                                                    : ZAN_TABLE_DELETE;
        ASSERT_STREQ(zan_table_operation_str(operation), verb.c_str()) << where();
        const residue_t before = residue();
        send(text, operation, code);
        EXPECT_EQ(residue(), before)
            << where() << ": " << to_string(before) << " became " << to_string(residue());
    }

    /* An asynchronous batch answers nothing: what came of it shows in the dump. */
    void send(const std::string &text, zan_table_operation_et operation, zan_rcode code)
    {
        const object_t obj = object(text, operation);
        ASSERT_TRUE(obj) << where();
        batch_t batch;
        batch.async = variant_.async;
        const result_t r = std::move(batch.add(obj).run()[0]);
        if (operation == ZAN_TABLE_CREATE && code == EOK)
            created_.push_back(text.substr(0, text.find(' ')) + " " + key_of(obj.get()));
        if (!variant_.async || code == EOK) {
            EXPECT_EQ(r.rc, code) << where() << ": " << text;
            checked_++;
        }
    }

    void check_dump()
    {
        if (dumping_.empty())
            return;
        settle();
        EXPECT_EQ(dump(table(dumping_)), expected_) << where() << ": " << dumping_;
        checked_++;
        dumping_.clear();
        expected_.clear();
    }

    static std::string key_of(const zan_table_base_st *obj)
    {
        const zan_table_def_t *def = zan_table_defs[obj->table_id];
        char key[256];
        zan_key_print(def, zan_obj_key(def, obj), key, sizeof key);
        return key;
    }

    void delete_all()
    {
        for (const std::string &text : created_) {
            const object_t obj = object(text, ZAN_TABLE_DELETE);
            /* A client owes a delete for each of its references. */
            for (zan_rcode rc = EOK; rc == EOK;)
                rc = run(obj).rc;
        }
        EXPECT_EQ(residue(), residue_t()) << path_ << ": " << to_string(residue());
        EXPECT_EQ(hardware_differs(variant_.npus), "") << path_;
    }

    std::string path_;
    std::vector<std::string> created_; /* tables and keys */
    variant_t variant_;
    uint32_t line_ = 0, checked_ = 0;
    std::string dumping_;
    std::vector<std::string> expected_;
};

std::vector<std::string> scenario_files()
{
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(SCENARIO_DIR))
        if (entry.path().extension() == ".zan")
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

class Scenario : public testing::TestWithParam<std::tuple<std::string, variant_t>>
{
};

std::string name_of(const testing::TestParamInfo<std::tuple<std::string, variant_t>> &param)
{
    return std::filesystem::path(std::get<0>(param.param)).stem().string() + "_" +
           std::get<1>(param.param).name;
}

void PrintTo(const variant_t &v, std::ostream *out)
{
    *out << v.name;
}

} // namespace

TEST_P(Scenario, ComesToWhatItSays)
{
    const variant_t &v = std::get<1>(GetParam());
    const server_t server({.num_npus = v.npus, .stepped = v.stepped, .seed = v.seed});
    scenario_t(std::get<0>(GetParam()), v).run_all();
}

INSTANTIATE_TEST_SUITE_P(All, Scenario,
                         testing::Combine(testing::ValuesIn(scenario_files()),
                                          testing::ValuesIn(variants)),
                         name_of);
