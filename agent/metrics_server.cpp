#include "metrics_server.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

constexpr auto patience = std::chrono::seconds(5); /* with the dispatcher */
constexpr unsigned max_connections = 16, max_of_one_address = 8;
constexpr unsigned idle_s = 15; /* of a connection */
constexpr char content_type[] = "application/openmetrics-text; version=1.0.0; charset=utf-8";

struct reply_t {
    unsigned status;
    const char *type;
    std::string text;
};

} // namespace

struct metrics_server_t {
    MHD_Daemon *daemon = nullptr;
    void (*ask)(void *arg) = nullptr;
    void *arg = nullptr;

    std::mutex mutex; /* over what follows */
    std::condition_variable answered;
    bool asked = false; /* and not answered yet, since then: */
    std::chrono::steady_clock::time_point asked_at;
    uint64_t answers = 0; /* so far */
    bool stopping = false;
    std::string text; /* of the last answer */
};

namespace
{

/* A text that is made from now on. One that somebody has asked for before and not waited for will
 * do; nobody waits longer for it than the first, since requests are served one by one. */
bool wait_for_text(metrics_server_t *server, std::string *text)
{
    std::unique_lock lock(server->mutex);
    const uint64_t before = server->answers;
    if (!server->asked && !server->stopping) {
        server->ask(server->arg);
        server->asked = true;
        server->asked_at = std::chrono::steady_clock::now();
    }
    server->answered.wait_until(lock, server->asked_at + patience,
                                [&] { return server->answers != before || server->stopping; });
    *text = server->text;
    return server->answers != before && !text->empty();
}

reply_t answer(metrics_server_t *server, const char *url, const char *method)
{
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return {MHD_HTTP_METHOD_NOT_ALLOWED, "text/plain", "only GET and HEAD\n"};
    if (strcmp(url, "/metrics") != 0)
        return {MHD_HTTP_NOT_FOUND, "text/plain", "the metrics are at /metrics\n"};
    std::string text;
    if (!wait_for_text(server, &text))
        return {MHD_HTTP_SERVICE_UNAVAILABLE, "text/plain",
                "the dispatcher is busy: try again later\n"};
    return {MHD_HTTP_OK, content_type, std::move(text)};
}

/* The library calls it for the head of a request first, then for each part of a body, which is of
 * no interest, then with none left. */
MHD_Result handle(void *server, MHD_Connection *connection, const char *url, const char *method,
                  const char *, const char *, size_t *body_size, void **state)
try {
    static int seen;
    if (*state != &seen || *body_size) {
        *state = &seen;
        *body_size = 0;
        return MHD_YES;
    }
    reply_t reply = answer((metrics_server_t *)server, url, method);
    MHD_Response *response = MHD_create_response_from_buffer(reply.text.size(), reply.text.data(),
                                                             MHD_RESPMEM_MUST_COPY);
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.type);
    if (reply.status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued;
} catch (const std::bad_alloc &) {
    return MHD_NO; /* cut the connection */
}

struct free_address_t {
    void operator()(addrinfo *address) const
    {
        freeaddrinfo(address);
    }
};
using address_ptr_t = std::unique_ptr<addrinfo, free_address_t>;

/* Null when the words are no address. */
address_ptr_t parse_address(const std::string &where)
{
    const size_t colon = where.rfind(':');
    std::string address = colon == std::string::npos ? "127.0.0.1" : where.substr(0, colon);
    const std::string port = colon == std::string::npos ? where : where.substr(colon + 1);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    addrinfo hints = {}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    if (address.empty() || port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535 ||
        getaddrinfo(address.c_str(), port.c_str(), &hints, &found) != 0)
        return nullptr;
    return address_ptr_t(found);
}

bool is_any(const addrinfo &address)
{
    const auto *in6 = (const sockaddr_in6 *)address.ai_addr;
    return IN6_IS_ADDR_UNSPECIFIED(&in6->sin6_addr);
}

void say_where(const metrics_server_t &server, const addrinfo &address)
{
    char host[NI_MAXHOST] = "";
    getnameinfo(address.ai_addr, address.ai_addrlen, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
    const bool v6 = address.ai_family == AF_INET6;
    const MHD_DaemonInfo *port = MHD_get_daemon_info(server.daemon, MHD_DAEMON_INFO_BIND_PORT);
    printf("zan_agent: metrics at http://%s%s%s:%u/metrics\n", v6 ? "[" : "", host, v6 ? "]" : "",
           port ? port->port : 0);
    fflush(stdout);
}

} // namespace

metrics_server_t *metrics_start(const char *where, void (*ask)(void *arg), void *arg)
{
    const address_ptr_t address = parse_address(where);
    if (!address) {
        fprintf(stderr,
                "zan_agent: --metrics %s: give PORT, or ADDRESS:PORT with an address in "
                "numbers\n",
                where);
        return nullptr;
    }
    auto server = std::make_unique<metrics_server_t>();
    server->ask = ask;
    server->arg = arg;
    /* The address of all interfaces is that of both families. */
    const unsigned family = address->ai_family != AF_INET6 ? MHD_NO_FLAG
                            : is_any(*address)             ? MHD_USE_DUAL_STACK
                                                           : MHD_USE_IPv6;
    const unsigned flags = MHD_USE_AUTO_INTERNAL_THREAD | family;
    errno = 0;
    server->daemon = MHD_start_daemon(
        flags, 0, nullptr, nullptr, handle, server.get(), MHD_OPTION_SOCK_ADDR, address->ai_addr,
        MHD_OPTION_CONNECTION_LIMIT, max_connections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
        max_of_one_address, MHD_OPTION_CONNECTION_TIMEOUT, idle_s, MHD_OPTION_END);
    if (!server->daemon) {
        fprintf(stderr, "zan_agent: no metrics at %s: %s\n", where, strerror(errno));
        return nullptr;
    }
    say_where(*server, *address);
    return server.release();
}

void metrics_answer(metrics_server_t *server, std::string text)
{
    {
        const std::lock_guard lock(server->mutex);
        server->text = std::move(text);
        server->answers++;
        server->asked = false;
    }
    server->answered.notify_all();
}

void metrics_stop(metrics_server_t *server)
{
    if (!server)
        return;
    {
        const std::lock_guard lock(server->mutex);
        server->stopping = true;
    }
    server->answered.notify_all();
    MHD_stop_daemon(server->daemon);
    delete server;
}
