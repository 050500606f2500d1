/* An agent as a process of its own, with a directory for its socket and log. */
#ifndef AGENT_PROCESS_H
#define AGENT_PROCESS_H

#include "zan_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

struct agent_process_t {
    std::string directory, socket_path;
    pid_t pid = -1;

    void start(const std::vector<std::string> &options)
    {
        char name[] = "/tmp/zan_test.XXXXXX";
        directory = mkdtemp(name);
        socket_path = directory + "/agent.sock";
        std::vector<std::string> words = {ZAN_AGENT_PROGRAM, "--socket", socket_path};
        words.insert(words.end(), options.begin(), options.end());
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const std::string log = directory + "/log";
        pid = fork();
        if (pid == 0) {
            dup2(open(log.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600), STDOUT_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    /* A session, as soon as the agent listens. */
    zan_client_t *connect() const
    {
        char why[512] = "";
        for (int tries = 0; tries < 600; tries++) {
            zan_client_t *client = zan_client_connect(socket_path.c_str(), "test", why, sizeof why);
            if (client || !strstr(why, "no agent"))
                return client;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ADD_FAILURE() << why;
        return nullptr;
    }
    /* The orderly stop: a process that died of anything fails the test. */
    void stop()
    {
        kill(pid, SIGTERM);
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "the agent ended with status 0x" << std::hex << status;
        EXPECT_FALSE(std::filesystem::exists(socket_path)) << "the socket is removed at the end";
        std::filesystem::remove_all(directory);
    }
};

#endif
