// Writes who it runs as and with what, one "name=value" a line, to the file given, then exits 0
// (or sleeps first when a second argument gives seconds). Tests start it through the launcher.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 2) {
        return 2;
    }
    FILE* out = std::fopen(argv[1], "w");
    if (out == nullptr) {
        return 3;
    }
    gid_t groups[64];
    const int count = getgroups(64, groups);
    std::string groupList;
    for (int n = 0; n < count; ++n) {
        groupList += (n > 0 ? "," : "") + std::to_string(groups[n]);
    }
    char directory[4096] = "";
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    struct sigaction pipe {};
    sigaction(SIGPIPE, nullptr, &pipe);
    std::fprintf(out, "uid=%u\ngid=%u\ngroups=%s\nHOME=%s\nUSER=%s\ncwd=%s\nsigterm_blocked=%d\nsigpipe_ignored=%d\n",
                 getuid(), getgid(), groupList.c_str(), std::getenv("HOME") ? std::getenv("HOME") : "",
                 std::getenv("USER") ? std::getenv("USER") : "", getcwd(directory, sizeof directory) ? directory : "",
                 sigismember(&mask, SIGTERM), pipe.sa_handler == SIG_IGN ? 1 : 0);
    std::fclose(out);
    if (argc > 2) {
        sleep(static_cast<unsigned>(std::atoi(argv[2])));
    }
    return 0;
}
