/* How far a stage is, for people. */
#ifndef ZANCTL_PROGRESS_H
#define ZANCTL_PROGRESS_H

#include "zanctl.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

inline double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* A bar that is drawn over on a terminal; elsewhere one line when a stage is done. */
struct progress_t {
    std::string words;
    uint64_t total;
    bool quiet, bar;
    double started = now_s(), drawn = 0;

    progress_t(const session_t *session, const char *stage, uint64_t objects)
        : words(stage), total(objects), quiet(session->json), bar(isatty(STDOUT_FILENO) != 0)
    {
    }
    void draw(uint64_t done)
    {
        if (quiet || !bar || (now_s() - drawn < 0.1 && done < total))
            return;
        drawn = now_s();
        const int width = 30, full = total ? (int)(done * width / total) : width;
        printf("\r%-22s [%.*s%*s] %9llu/%llu", words.c_str(), full,
               "##############################", width - full, "", (unsigned long long)done,
               (unsigned long long)total);
        fflush(stdout);
    }
    double finish(uint64_t done)
    {
        const double seconds = now_s() - started;
        if (quiet)
            return seconds;
        if (bar)
            printf("\r\033[K");
        printf("%-22s %9llu objects in %7.3f s, %9.0f a second\n", words.c_str(),
               (unsigned long long)done, seconds, seconds > 0 ? (double)done / seconds : 0.0);
        fflush(stdout);
        return seconds;
    }
};

#endif
