/* The socket that the agent listens at. */
#include "listener.h"

#include "../client/zan_wire.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

bool socket_fault(const char *path, const char *what)
{
    fprintf(stderr, "zan_agent: %s: %s: %s\n", path, what, strerror(errno));
    return false;
}

/* A socket that nobody answers at is what a killed agent left behind. */
bool remove_stale_socket(const sockaddr_un &address)
{
    struct stat st;
    if (lstat(address.sun_path, &st) < 0)
        return true;
    if (!S_ISSOCK(st.st_mode)) {
        errno = EEXIST;
        return socket_fault(address.sun_path, "something else is there");
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answers = connect(fd, (const sockaddr *)&address, sizeof address) == 0;
    close(fd);
    if (answers) {
        errno = EADDRINUSE;
        return socket_fault(address.sun_path, "another agent serves there");
    }
    unlink(address.sun_path);
    return true;
}

} // namespace

void make_parent_directory(const char *path)
{
    const std::string file = path;
    for (size_t slash = 1; (slash = file.find('/', slash)) != std::string::npos; slash++)
        mkdir(file.substr(0, slash).c_str(), 0755); /* a failure shows when the path is used */
}

int open_listener(const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        socket_fault(path, "the socket path");
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));
    make_parent_directory(path);
    if (!remove_stale_socket(address))
        return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const mode_t mask = umask(0177); /* for the user alone */
    const bool bound = fd >= 0 && bind(fd, (const sockaddr *)&address, sizeof address) == 0 &&
                       listen(fd, ZAN_CLIENTS_MAX) == 0;
    umask(mask);
    if (bound)
        return fd;
    socket_fault(path, "cannot listen");
    if (fd >= 0)
        close(fd);
    return -1;
}
