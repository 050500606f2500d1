/* What people learn of a running agent: counters, trace classes, durations, metrics, the archive.
 */
#include "open_metrics.h"
#include "zanctl_fixture.h"

#include <arpa/inet.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/socket.h>

namespace
{

using json_t = nlohmann::json;

class diagnostics : public zanctl
{
protected:
    json_t run_json(const std::string &arguments) const
    {
        const result_t result = run("--json " + arguments);
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.text;
        return json_t::parse(result.text, nullptr, false);
    }
    /* Where the agent says that it serves metrics, in front of the first request that it answers:
     * the port, of 127.0.0.1. */
    uint16_t metrics_port() const
    {
        std::stringstream log;
        log << std::ifstream(process.directory + "/log").rdbuf();
        const std::string before = "metrics at http://127.0.0.1:";
        const size_t at = log.str().find(before);
        EXPECT_NE(at, std::string::npos) << log.str();
        return (uint16_t)atoi(log.str().c_str() + at + before.size());
    }
    static std::string shell(const std::string &command)
    {
        FILE *pipe = popen(command.c_str(), "r");
        std::string text;
        for (int c; (c = fgetc(pipe)) != EOF;)
            text += (char)c;
        EXPECT_EQ(pclose(pipe), 0) << command;
        return text;
    }
    /* The whole answer to a request, its head in front. */
    static std::string ask_http(uint16_t port, const std::string &request)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fd, (const sockaddr *)&address, sizeof address), 0);
        const std::string text = request + " HTTP/1.1\r\nHost: here\r\nConnection: close\r\n\r\n";
        EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), (ssize_t)text.size());
        std::string answer;
        char part[4096];
        for (ssize_t n; (n = recv(fd, part, sizeof part, 0)) > 0;)
            answer.append(part, (size_t)n);
        close(fd);
        return answer;
    }
};

TEST_F(diagnostics, counts_since_the_start_the_reset_and_in_a_bank)
{
    start({});
    auto counted = [&](const char *counter) {
        return run_json("counters l3intf")["tables"][0]["counters"][counter];
    };
    EXPECT_EQ(run("counters").text, "bank 0 counts\nno table has counted anything\n");
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("create l3intf intf=1").status, 1);
    ASSERT_EQ(run("create lagport intf=5").status, 0);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[2,0,0,0,0,0],"since_reset":2,"total":2})");
    EXPECT_EQ(counted("CREATE_DUPLICATE")["total"], 1);
    EXPECT_EQ(counted("DELETE")["total"], 0) << "each counter with a name is told";

    ASSERT_EQ(run("counters l3intf --reset --bank 3").status, 0);
    ASSERT_EQ(run("create l3intf intf=2").status, 0);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[2,0,0,1,0,0],"since_reset":1,"total":3})");
    ASSERT_EQ(run("counters --bank 0").status, 0);
    const json_t all = run_json("counters");
    EXPECT_EQ(all["active_bank"], 0);
    ASSERT_EQ(all["tables"].size(), 2u);
    EXPECT_EQ(counted("CREATE").dump(), R"({"banks":[0,0,0,1,0,0],"since_reset":1,"total":3})")
        << "a bank begins at 0";
    EXPECT_EQ(run_json("counters lagport")["tables"][0]["counters"]["CREATE"]["since_reset"], 1)
        << "another table's were not reset";
    ASSERT_EQ(run("counters --reset").status, 0);
    EXPECT_EQ(run_json("counters lagport")["tables"][0]["counters"]["CREATE"]["since_reset"], 0);
    EXPECT_EQ(run("counters --bank 6").status, 2);
    EXPECT_EQ(run("counters nonsense").status, 2);
}

TEST_F(diagnostics, traces_the_classes_that_are_on)
{
    start({});
    auto count = [&](const std::string &word) {
        const std::string text = run("trace").text;
        size_t times = 0;
        for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at++)
            times++;
        return times;
    };
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("delete l3intf intf=1").status, 0);
    EXPECT_EQ(count("l3intf_verbose"), 0u);
    EXPECT_EQ(run("trace classes l3intf_verbose queue --on").text, "3 classes are on now\n");
    EXPECT_EQ(run("trace classes l3intf").text, "l3intf_error                           on\n"
                                                "l3intf_event                           on\n"
                                                "l3intf_verbose                         on\n");
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("create macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1").status, 0);
    ASSERT_EQ(run("update l3intf intf=1 ipv4_mtu=9000").status, 0);
    const size_t traced = count("l3intf_verbose");
    EXPECT_GT(traced, 0u);
    EXPECT_EQ(count("macllnh_verbose"), 0u) << "another table's";

    const struct {
        const char *arguments;
        int status;
        const char *text; /* in the output */
    } cases[] = {
        {"trace classes", 0,
         "verbose                                on for 1 of 361 tables: l3intf\n"},
        {"trace classes verbose --off", 0, "363 classes are off now"},
        {"trace classes transaction_history macllnh_error --off", 0, "5 classes are off now"},
        {"trace classes", 0,
         "error                                  on for 360 of 361 tables, not for "
         "macllnh\n"},
        {"--json trace classes batch", 0,
         "{\"batch_crud_error\":true,\"batch_crud_verbose\":false}"},
        {"trace classes l3intf_verbos --on", 2,
         "there is no trace class l3intf_verbos; is it "
         "l3intf_verbose?"},
        {"trace classes xx", 2, "there is no trace class xx: zanctl trace classes lists them"},
        {"trace classes l3intf_verbose --off", 0, "1 class is off now"},
        {"trace classes error", 0,
         "error                                  on for 360 of 361 tables, not for macllnh\n"
         "queue_error                            on\n"},
        {"trace classes --on", 2, "which classes?"},
        {"trace classes queue --on --off", 2, ""},
        {"trace --file nowhere classes", 2, "classes excludes --file"},
        {"trace --table l3intf classes event --off", 2, "classes excludes --table"},
        {"trace classes event --off --errors", 2, "classes excludes --errors"},
        {"trace classes event", 0,
         "event                                  on for 361 of 361 tables\n"},
    };
    for (const auto &c : cases) {
        const result_t result = run(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.text;
        EXPECT_TRUE(has(result.text, c.text)) << c.arguments;
    }
    const size_t replaced = count("replaced: table");
    EXPECT_GT(replaced, 0u);
    ASSERT_EQ(run("update l3intf intf=1 ipv4_mtu=1500").status, 0);
    EXPECT_EQ(count("l3intf_verbose"), traced) << "nothing came to it since";
    EXPECT_EQ(count("replaced: table"), replaced);
}

/* Durations are the machine's, and anything may be slow on a busy one: what is looked at is what
 * latency makes sure of. */
TEST_F(diagnostics, shows_what_was_slow_and_where)
{
    start({});
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    ASSERT_EQ(run("compare").status, 0); /* the NPUs have done all that */
    ASSERT_EQ(run("sim --latency 20000 --npu 1").status, 0);
    ASSERT_EQ(run("walk ipnhgroup nhg_id=7 --set fec_id=71").status, 0);
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("sim --well").status, 0);
    ASSERT_EQ(run("compare").status, 0);

    const json_t all = run_json("perf");
    std::string places;
    for (const json_t &op : all["slow"]) {
        EXPECT_GE(op["elapsed_ns"], 10'000'000);
        places += op["operation"].get<std::string>() + " " + op["table"].get<std::string>() + " " +
                  (op.contains("npu") ? op["npu"].dump() : "-") + "\n";
    }
    for (const char *place : {"create l3intf -\n", "update iproute 1\n", "update ipnhgroup 1\n"})
        EXPECT_TRUE(has(places, place));
    EXPECT_GT(all["queue_stops"]["count"], 0);

    const json_t perf = run_json("perf ipnhgroup"), &group = perf["tables"][0];
    EXPECT_EQ(group["dispatcher"]["count"], 3) << "a create, a read, an update";
    EXPECT_EQ(group["delivery"]["count"], 3);
    EXPECT_EQ(group["walks"]["count"], 1);
    EXPECT_GE(group["slow"], 1);
    EXPECT_LT(perf["slow"].size(), all["slow"].size()) << "of this table only";
    EXPECT_EQ(group["npus"][0]["count"], 2);
    EXPECT_EQ(group["npus"][1]["count"], 2);
    EXPECT_GE(group["npus"][1]["max_ns"], 20'000'000);
    uint64_t above = 0, bound = 0;
    for (size_t i = 0; i < group["npus"][1]["buckets"].size(); i++) {
        if (bound >= 16'777'216) /* the largest bound below the latency */
            above += group["npus"][1]["buckets"][i].get<uint64_t>();
        if (i < perf["bucket_bounds_ns"].size())
            bound = perf["bucket_bounds_ns"][i];
    }
    EXPECT_GE(above, 1u) << group["npus"][1].dump();
    EXPECT_EQ(run_json("perf l3intf")["tables"][0]["npus"][1]["count"], 1)
        << "one call for all NPUs counts with each";
    for (const char *part :
         {"dispatcher", "NPU 1", "at most", "33.6 ms", "update of ipnhgroup took "})
        EXPECT_TRUE(has(run("perf ipnhgroup").text, part));
    EXPECT_TRUE(has(run("perf lagport").text, "lagport: not used yet\n"));
    EXPECT_EQ(run("perf nonsense").status, 2);
}

TEST_F(diagnostics, serves_metrics_with_the_figures_that_zanctl_shows)
{
    start({"--metrics", "0", "--capacity", "lpm=100"});
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    const uint16_t port = metrics_port();
    ASSERT_EQ(run("create iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").status,
              0);
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 1);
    ASSERT_EQ(run("walk ipnhgroup nhg_id=7 --set fec_id=71").status, 0);
    ASSERT_EQ(run("sim --fail 0 --table ipnhgroup --npu 1").status, 0);
    ASSERT_EQ(run("update ipnhgroup nhg_id=7 is_pbts=true").status, 0);
    wait_for("failed", "1 failed now");
    EXPECT_TRUE(has(ask_http(port, "GET /metrics"), "\nzan_failed_objects 1\n"));
    const json_t failed = run_json("failed ipnhgroup nhg_id=7");
    EXPECT_EQ(failed["failed"], 1);
    ASSERT_EQ(failed["objects"].size(), 1u);
    EXPECT_EQ(failed["objects"][0]["npus"].dump(), "[1]");
    EXPECT_EQ(failed["objects"][0]["words"], "of the platform: Input/output error");
    EXPECT_EQ(run_json("failed ipnhgroup nhg_id=8")["objects"].size(), 0u);
    ASSERT_EQ(run("failed --forget").status, 0);
    wait_for("failed", "0 failed now"); /* no retry changes anything any more */
    ASSERT_EQ(run("compare").status, 1);

    const std::string answer = ask_http(port, "GET /metrics");
    const size_t body = answer.find("\r\n\r\n");
    ASSERT_NE(body, std::string::npos) << answer;
    EXPECT_EQ(answer.find("HTTP/1.1 200"), 0u) << answer;
    EXPECT_TRUE(has(answer, "\r\nContent-Type: application/openmetrics-text; version=1.0.0; "
                            "charset=utf-8\r\n"));
    const open_metrics_t metrics(answer.substr(body + 4));

    size_t compared = 0;
    const json_t counters = run_json("counters"), perf = run_json("perf"),
                 resources = run_json("resources --all");
    for (const json_t &table : counters["tables"]) {
        const std::string name = table["table"];
        const json_t all = run_json("counters " + name)["tables"][0]["counters"];
        for (const auto &[counter, figures] : all.items()) {
            EXPECT_EQ(metrics.value("zan_operations_total{table=\"" + name + "\",counter=\"" +
                                    counter + "\"}"),
                      figures["total"])
                << name << " " << counter;
            compared++;
        }
    }
    EXPECT_GT(compared, 80u) << "two tables";
    for (const json_t &table : perf["tables"]) {
        const std::string labels = "{table=\"" + table["table"].get<std::string>() + "\"}";
        EXPECT_EQ(metrics.value("zan_dispatch_seconds_count" + labels),
                  table["dispatcher"]["count"]);
        EXPECT_EQ(metrics.value("zan_walk_seconds_count" + labels), table["walks"]["count"]);
    }
    EXPECT_EQ(metrics.value("zan_walk_seconds_count{table=\"ipnhgroup\"}"), 1);
    size_t occupied = 0;
    for (const json_t &row : resources) {
        const std::string labels = "{database=\"" + row["database"].get<std::string>() +
                                   "\",npu=\"" + row["npu"].dump() + "\"}";
        if (row["used"] == 0)
            continue;
        occupied++;
        EXPECT_EQ(metrics.value("zan_resource_used_entries" + labels), row["used"]) << labels;
    }
    EXPECT_GT(occupied, 0u);
    EXPECT_EQ(metrics.value("zan_resource_capacity_entries{database=\"lpm\",npu=\"0\"}"), 100);
    EXPECT_FALSE(metrics.has("zan_resource_capacity_entries{database=\"next_hop\",npu=\"0\"}"));
    EXPECT_EQ(metrics.value("zan_failed_objects"), 0);
    EXPECT_EQ(metrics.value("zan_quarantined_objects"), 0);
    EXPECT_GE(metrics.value(
                  "zan_hardware_errors_total{table=\"ipnhgroup\",npu=\"1\",operation=\"update\"}"),
              1);
    EXPECT_EQ(metrics.value("zan_watch_dropped_total"), 0);

    const std::string taken = "127.0.0.1:" + std::to_string(port);
    const std::pair<std::string, int> refused[] = {{taken, 1}, {"here:80", 1}, {"70000", 2}};
    for (const auto &[where, status] : refused)
        EXPECT_EQ(system((ZAN_AGENT_PROGRAM " --socket " + process.directory +
                          "/other.sock --metrics " + where + " >/dev/null 2>&1")
                             .c_str()),
                  status << 8)
            << where;
    EXPECT_EQ(ask_http(port, "GET /").find("HTTP/1.1 404"), 0u);
    EXPECT_EQ(ask_http(port, "DELETE /metrics").find("HTTP/1.1 405"), 0u);
    const std::string head = ask_http(port, "HEAD /metrics");
    EXPECT_EQ(head.find("HTTP/1.1 200"), 0u) << head;
    EXPECT_TRUE(has(head, "\r\nContent-Length: "));
    EXPECT_EQ(head.find("\r\n\r\n"), head.size() - 4) << "no body";
    EXPECT_EQ(ask_http(port, "nonsense").find("HTTP/1.1 400"), 0u);
}

TEST_F(diagnostics, archives_what_the_commands_show)
{
    start({"--retries", "7"});
    ASSERT_EQ(run("create l3intf intf=1").status, 0);
    ASSERT_EQ(run("delete l3intf intf=2").status, 1);
    const std::string archive = process.directory + "/case.tar.gz";
    const result_t made = run("support " + archive);
    ASSERT_EQ(made.status, 0) << made.text;

    shell("tar xzf " + archive + " -C " + process.directory);
    const std::string unpacked = process.directory + "/case/";
    auto member = [&](const std::string &name) {
        std::stringstream text;
        text << std::ifstream(unpacked + name).rdbuf();
        return text.str();
    };
    std::string said = made.text.substr(0, made.text.find('\n') + 1);
    EXPECT_EQ(said, archive + "\n");
    std::istringstream listed(shell("tar tzf " + archive)), told(made.text.substr(said.size()));
    size_t members = 0;
    for (std::string name, bytes, in_archive; told >> bytes >> name; members++) {
        ASSERT_TRUE(listed >> in_archive);
        EXPECT_EQ(in_archive, "case/" + name);
        EXPECT_EQ(std::to_string(std::filesystem::file_size(unpacked + name)), bytes);
    }
    EXPECT_EQ(members, 14u) << made.text;
    for (const char *command : {"about", "counters", "resources", "failed", "quarantine", "events"})
        EXPECT_EQ(member(std::string(command) + ".txt"), run(command).text);
    EXPECT_TRUE(has(member("about.txt"), "--retries 7"));
    EXPECT_TRUE(has(member("tables.txt"), "l3intf (46): "));
    EXPECT_TRUE(has(member("perf_tables.txt"), "l3intf: from "));
    EXPECT_TRUE(has(member("trace.txt"), "l3intf_error"));
    EXPECT_TRUE(has(run("trace --file " + unpacked + "trace.ring").text, "l3intf_error"));

    EXPECT_EQ(run("support " + archive).status, 2) << "it is there";
    EXPECT_EQ(run("support -").status, 2) << "a file of that name is not meant";
    EXPECT_TRUE(has(member("status.txt"), "l3intf "));
    EXPECT_EQ(run("support " + process.directory + "/none/case.tar.gz").status, 2);
}

TEST_F(diagnostics, says_what_an_archive_lacks)
{
    start({});
    const std::string hidden = process.directory + "/.case.v2.tgz";
    ASSERT_EQ(run("support " + hidden).status, 0);
    EXPECT_EQ(shell("ls -A " + process.directory + " | grep -c case.v2"), "1\n")
        << "nothing beside";
    EXPECT_EQ(shell("tar xzOf " + hidden + " .case.v2/tables.txt .case.v2/perf_tables.txt"),
              "no table is in use\nno table is in use\n");
    const std::string nameless = process.directory + "/.tar.gz";
    ASSERT_EQ(run("support " + nameless).status, 0);
    EXPECT_TRUE(has(shell("tar tzf " + nameless), "zan-support/about.txt\n"));

    const json_t about = run_json("about");
    ASSERT_EQ(unlink(about["agent"]["trace_file"].get<std::string>().c_str()), 0);
    const std::string torn = process.directory + "/torn.tar.gz";
    const result_t result = run("support " + torn);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(has(result.text, "zanctl: trace.ring is missing: "));
    EXPECT_TRUE(has(shell("tar tzf " + torn), "torn/trace.txt\n"));

    process.stop();
    start({"--trace-file", "none"});
    const std::string rest = process.directory + "/rest.tar.gz";
    const result_t in_memory = run("support " + rest);
    EXPECT_EQ(in_memory.status, 0);
    EXPECT_TRUE(has(in_memory.text, "the agent keeps its trace ring in memory"));
}

} // namespace
