/* The socket that the agent listens at: a path in the file system, for the agent's user alone. */
#ifndef ZAN_LISTENER_H
#define ZAN_LISTENER_H

/* Listen at `path`: its directory is made if it is missing, and what a killed agent left behind is
 * replaced. The descriptor does not block. -1 and a message on standard error when it cannot be
 * had, or when another agent serves there. */
int open_listener(const char *path);

/* Make the directory that the file `path` is to stand in, when only that last one is missing. */
void make_parent_directory(const char *path);

#endif
