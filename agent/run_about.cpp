/* What the agent is: version, process, how it was started. */
#include "requests.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include <unistd.h>

/* As the kernel keeps it, a line for each word. */
static std::string command_line()
{
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    std::replace(text.begin(), text.end(), '\0', '\n');
    return text;
}

answer_t run_about(node_t *node, const request_t &request)
{
    if (!request.payload.empty())
        return refuse_request(node, "length", "the request has no payload");
    const std::string words = command_line();
    zan_about_st about = {};
    about.started_ns = node->started_ns;
    about.pid = (uint32_t)getpid();
    about.command_line_len = (uint32_t)words.size();
    snprintf(about.version, sizeof about.version, "%s", ZAN_VERSION);
    snprintf(about.trace_file, sizeof about.trace_file, "%s", node->trace_file.c_str());
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof about);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &about, sizeof about);
    frame.insert(frame.end(), words.begin(), words.end());
    return {ZAN_FRAME_ABOUT_REPLY, std::move(frame)};
}
