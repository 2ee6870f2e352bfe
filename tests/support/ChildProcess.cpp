#include "support/ChildProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/Eventually.h"

namespace qel::test {

void TempFile::write(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }

std::string TempFile::read() const {
    std::ostringstream content;
    content << std::ifstream(path_, std::ios::binary).rdbuf();
    return content.str();
}

// Free in both protocols: a DNS listener binds the one port in UDP and in TCP.
int freePort(int type) {
    for (int attempt = 0; attempt < 32; ++attempt) {
        const int fd = socket(AF_INET, type, 0);
        const int other = socket(AF_INET, type == SOCK_DGRAM ? SOCK_STREAM : SOCK_DGRAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                          getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
                          bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(fd);
        close(other);
        if (free) return ntohs(address.sin_port);
    }
    return 0;
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
        dup2(open(out.path().c_str(), O_WRONLY), 1);
        dup2(open(err.path().c_str(), O_WRONLY), 2);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (status) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    int raw = 0;
    if (!status && eventually([&] { return waitpid(pid, &raw, WNOHANG) == pid; }, limit)) {
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    return status;
}

}  // namespace qel::test
