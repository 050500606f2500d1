/* Replays as people see them: what zanctl marks, keeps and sweeps, and what it says of it. */
#include "zanctl_fixture.h"

namespace
{

using replay = zanctl;

TEST_F(replay, keeps_what_a_client_sends_again)
{
    start({});
    std::string first, again;
    for (int i = 0; i < 100; i++) {
        const std::string route = "create iproute vrf_id=0 prefix=10.0." + std::to_string(i) +
                                  ".0/24 next_obj.ipnhgroup.nhg_id=7 bgp_as=";
        first += route + "1\n";
        if (i % 10 != 0)
            again += route + (i % 10 == 1 ? "2\n" : "1\n");
    }
    const std::string group = "create ipnhgroup nhg_id=7\n";
    ASSERT_EQ(run("apply " + write_file("first", group + first)).status, 0);
    ASSERT_EQ(run("compare").status, 0);
    EXPECT_EQ(run("replay end iproute").status, 2) << "none is under way";
    EXPECT_EQ(run("replay start iproute").text, "iproute              100 marked\n");
    ASSERT_EQ(run("apply --replace " + write_file("again", again)).status, 0);
    EXPECT_EQ(run("replay end").text,
              "iproute              80 kept, 10 changed, 0 asked for anew, 10 swept\n");
    ASSERT_EQ(run("compare").status, 0);
    const std::string npu = "NPU 0     91 objects";
    EXPECT_TRUE(has(run("status").text, npu));
    EXPECT_TRUE(has(run("status").text, "101 creates, 10 updates, 10 deletes"))
        << "what did not change was not written again";

    /* A parent that was left out goes behind its children, whose replay ends later. */
    ASSERT_EQ(run("replay start").status, 0);
    EXPECT_EQ(
        run("replay end ipnhgroup").text,
        "ipnhgroup            0 kept, 0 changed, 0 asked for anew, 1 swept, 1 of the swept still "
        "there: see zanctl graph and failed\n");
    EXPECT_TRUE(has(run("list ipnhgroup").text, "delete-pending"));
    EXPECT_EQ(run("replay end").status, 0);
    EXPECT_EQ(run("list ipnhgroup").text, "");
    EXPECT_EQ(run("eod ipacl").text, "ipacl                told to all NPUs\n");
    EXPECT_EQ(run("eod iproute").status, 2) << "it does not hear it";
}

/* Whatever else the client does meanwhile, each marked object is told once, as what became of it.
 */
TEST_F(replay, tells_what_became_of_each_object)
{
    start({});
    const std::string intf = "l3intf intf=";
    std::string first;
    for (int i = 1; i <= 5; i++)
        first += "create " + intf + std::to_string(i) + " ipv4_mtu=1500\n";
    first += "create sampler sampler_id=9 sample_rate=100\ncreate sampler sampler_id=9\n"
             "create sampler sampler_id=8 sample_rate=100\ncreate sampler sampler_id=8\n";
    run("apply " + write_file("first", first));
    EXPECT_EQ(run("replay start l3intf sampler l3intf").text, "l3intf               5 marked\n"
                                                              "sampler              2 marked\n");
    for (const char *operation :
         {"create l3intf intf=1 ipv4_mtu=1500", "update l3intf intf=2 ipv4_mtu=9000",
          "update l3intf intf=2 ipv4_mtu=9001", "update l3intf intf=3 ipv4_mtu=1500",
          "delete l3intf intf=4", "create l3intf intf=6", "update l3intf intf=6 ipv4_mtu=9000",
          "create sampler sampler_id=9 sample_rate=100"})
        ASSERT_EQ(run(operation).status, 0) << operation;
    EXPECT_EQ(run("replay end --epoch 4").status, 2);
    EXPECT_EQ(run("replay end l3intf").text,
              "l3intf               2 kept, 1 changed, 1 asked for anew, 1 swept, 1 deleted by the "
              "client\n");
    EXPECT_EQ(run("replay end").text,
              "sampler              1 kept, 0 changed, 0 asked for anew, 1 swept\n");
    EXPECT_EQ(run("list sampler").text, "sampler sampler_id=9 sample_rate=100\n")
        << "as it was sent, and its two references were of before";
    ASSERT_EQ(run("delete sampler sampler_id=9").status, 0);
    EXPECT_EQ(run("list sampler").text, "");
    EXPECT_EQ(run("compare").status, 0);
    EXPECT_EQ(run("replay start l3intf --epoch 5").text, "l3intf               0 marked\n");
    EXPECT_EQ(run("replay start l3intf").text, "l3intf               4 marked\n");
}

/* A group fails for good and takes two routes with it. The client sends one of them again, which is
 * refused for its parent, and the group and the other no more. */
TEST_F(replay, ends_what_lies_in_quarantine)
{
    start({"--retries", "1"});
    const std::string route = "create iproute vrf_id=0 next_obj.ipnhgroup.nhg_id=7 prefix=";
    ASSERT_EQ(run("apply " + write_file("first", "create ipnhgroup nhg_id=7\n" + route +
                                                     "10.0.0.0/8\n" + route + "11.0.0.0/8\n"))
                  .status,
              0);
    ASSERT_EQ(run("compare").status, 0);
    ASSERT_EQ(run("sim --fail 0 --table ipnhgroup --npu 0 --operation update").status, 0);
    ASSERT_EQ(run("update ipnhgroup nhg_id=7 is_pbts=true").status, 0);
    wait_for("quarantine", "3 out of service now");
    ASSERT_EQ(run("sim --well").status, 0);

    EXPECT_EQ(run("replay start").text, "iproute              0 marked\n"
                                        "ipnhgroup            0 marked\n");
    const result_t again = run(route + "11.0.0.0/8");
    EXPECT_TRUE(has(again.text, "0x4f908040"));
    EXPECT_EQ(run("replay end").text,
              "iproute              0 kept, 0 changed, 1 asked for anew, 0 swept, 1 dropped from "
              "quarantine\n"
              "ipnhgroup            0 kept, 0 changed, 0 asked for anew, 0 swept, 1 dropped from "
              "quarantine\n");
    EXPECT_EQ(run("quarantine").text,
              "iproute vrf_id=0 prefix=11.0.0.0/8: taken out for ipnhgroup nhg_id=7\n"
              "1 out of service now; 3 taken out since the start, 0 put back\n");
    ASSERT_EQ(run("create ipnhgroup nhg_id=7").status, 0);
    ASSERT_EQ(run("quarantine --release").status, 0);
    wait_for("quarantine", "0 out of service now; 3 taken out since the start, 1 put back\n");
    EXPECT_EQ(run("list iproute").text,
              "iproute vrf_id=0 prefix=11.0.0.0/8 next_obj.ipnhgroup.nhg_id=7\n");
    EXPECT_EQ(run("compare").status, 0);
}

/* Nothing is told of its replay before; the other tables of the command have theirs. */
TEST_F(replay, that_is_refused_stands_alone)
{
    start({"--platform", FORGETFUL_PLATFORM});
    ASSERT_EQ(run("apply " + write_file("first", "create meterprofile profile_id=1\n"
                                                 "create meterprofile profile_id=2\n"
                                                 "create lagport intf=1\n"))
                  .status,
              0);
    EXPECT_EQ(run("replay start meterprofile").text, "meterprofile         2 marked\n");
    ASSERT_EQ(run("create meterprofile profile_id=1").status, 0);
    EXPECT_EQ(run("replay end").text,
              "meterprofile         1 kept, 0 changed, 0 asked for anew, 1 swept\n");
    const result_t both = run("replay start meterprofile lagport");
    EXPECT_EQ(both.status, 1);
    EXPECT_EQ(both.text,
              "zanctl: meterprofile refused: 0x4f908016 ZAN_RC_INVALID: invalid request\n"
              "lagport              1 marked\n");
    EXPECT_EQ(run("replay end meterprofile").status, 2) << "none is under way";
    EXPECT_EQ(run("replay end").text,
              "lagport              0 kept, 0 changed, 0 asked for anew, 1 swept\n");
    EXPECT_EQ(run("list meterprofile").text, "meterprofile profile_id=1\n");
}

} // namespace
