/* zanctl against an agent of its own: runs commands, gives what they print and their exit status.
 */
#ifndef ZANCTL_FIXTURE_H
#define ZANCTL_FIXTURE_H

#include "agent_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

class zanctl : public testing::Test
{
protected:
    agent_process_t process;

    void start(const std::vector<std::string> &options)
    {
        process.start(options);
        zan_client_t *client = process.connect();
        ASSERT_TRUE(client);
        zan_client_close(client);
    }
    void TearDown() override
    {
        process.stop();
    }
    struct result_t {
        int status;
        std::string text; /* both streams */
    };
    result_t run(const std::string &arguments) const
    {
        const std::string command = std::string(ZANCTL_PROGRAM) + " --socket " +
                                    process.socket_path + " " + arguments + " 2>&1";
        FILE *pipe = popen(command.c_str(), "r");
        result_t result = {-1, ""};
        char part[4096];
        while (fgets(part, sizeof part, pipe))
            result.text += part;
        result.status = WEXITSTATUS(pclose(pipe));
        return result;
    }
    /* Whether it has this in it; what it has instead is told with a failure. */
    static testing::AssertionResult has(const std::string &text, const std::string &part)
    {
        const bool is_there = text.find(part) != std::string::npos;
        return (is_there ? testing::AssertionSuccess() : testing::AssertionFailure())
               << '"' << part << "\" and\n"
               << text;
    }
    /* Run the command until its output has this text. */
    void wait_for(const std::string &command, const std::string &text) const
    {
        std::string last;
        for (int i = 0; i < 500; i++) {
            last = run(command).text;
            if (last.find(text) != std::string::npos)
                return;
            usleep(20000);
        }
        ADD_FAILURE() << command << " never said " << text << ", but\n" << last;
    }
    std::string write_file(const char *name, const std::string &text) const
    {
        const std::string path = process.directory + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
};

#endif
