/* The metrics over HTTP: GET /metrics, OpenMetrics text.
 *
 * The HTTP library's thread touches nothing of the server. It asks for the text, which the
 * dispatcher makes between two requests, and waits for it; a dispatcher that is busy for too long
 * costs the scraper an answer, and nobody else anything.
 */
#ifndef ZAN_METRICS_SERVER_H
#define ZAN_METRICS_SERVER_H

#include <string>

struct metrics_server_t;

/* Serve at "PORT", of the loopback interface, or at "ADDRESS:PORT" with a numeric address, an IPv6
 * one in brackets; port 0 takes one that is free. `ask` is called on a thread of the server when a
 * text is wanted. Says where it serves; null, and says why, when it cannot. */
metrics_server_t *metrics_start(const char *where, void (*ask)(void *arg), void *arg);
/* The text that was asked for; an empty one: there was no memory for it. Any thread. */
void metrics_answer(metrics_server_t *server, std::string text);
/* Who waits for a text is told to come again; null is allowed. */
void metrics_stop(metrics_server_t *server);

#endif
