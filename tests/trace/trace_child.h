/*
 * The trace facility initialises once per process, so every case runs its
 * body in a forked child with its own environment and temporary directory,
 * and the parent checks what the child wrote.
 */
#ifndef ZTUVC_TEST_TRACE_CHILD_H
#define ZTUVC_TEST_TRACE_CHILD_H

#include <functional>
#include <string>
#include <vector>

struct TraceSandbox {
    std::string dir;  /* fresh temporary directory, removed by the destructor */
    std::string home; /* dir + "/home", created */
    TraceSandbox();
    ~TraceSandbox();
    std::string path(const std::string &name) const { return dir + "/" + name; }
    void writeFile(const std::string &relPath, const std::string &content) const;
};

/* Runs body in a child with a cleared trace environment plus env ("K=V"
 * entries; "K" alone unsets).  Returns the child's exit status (0 = ok). */
int RunInChild(const std::vector<std::string> &env, const std::function<void()> &body);

std::string ReadFile(const std::string &path);
std::vector<std::string> ReadLines(const std::string &path);

#endif
