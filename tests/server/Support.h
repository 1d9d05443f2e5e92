// What the server suite's tests share: expecting a fault of one class, this machine as a source, and the
// program run as a child process.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include <string>

#include <gtest/gtest.h>

#include <fundix/Exception.h>
#include <fundix/Ref.h>
#include <morphel/params/types.h>
#include <morphel/server/conversion/types.h>
#include <morphel/types.h>

// The fault of class `Fault` that `f` raises, or null (and a failure) when it raises another or none.
template <class Fault, class F>
Fundix::Ref<Fault> ExpectFault(F&& f) {
    try {
        f();
        ADD_FAILURE() << "no fault";
    } catch (const typename Fault::Exception& e) {
        return e.GetFault();
    } catch (const Fundix::Exception& e) {
        ADD_FAILURE() << "raised " << e.GetMessage();
    }
    return nullptr;
}

// The machine the tests run on, as a live source the service accepts.
inline Fundix::Ref<Morphel::ComputerSpec> ThisMachine() {
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    return new Morphel::ComputerSpec(Fundix::Ref<Morphel::ComputerSpec::LiveComputerLocation>(
        new Morphel::ComputerSpec::LiveComputerLocation(host, {}, {}, {}, "linux", {}, {})).Get());
}

// A job `name` converting this machine with default parameters.
inline Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> JobSpecOfThisMachine(const std::string& name) {
    Fundix::Ref<Morphel::Server::Conversion::ConversionJobSpec> spec(new Morphel::Server::Conversion::ConversionJobSpec());
    spec->SetName(name);
    spec->SetSource(ThisMachine().Get());
    spec->SetConversionParams(Fundix::Ref<Morphel::Params::ConversionParams>(new Morphel::Params::ConversionParams()).Get());
    return spec;
}

// The program, started with `args`, and the URL it serves; stopped with SIGKILL when still running.
class Program {
public:
    explicit Program(std::vector<std::string> args) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDERR_FILENO);
            close(fds[0]);
            std::vector<char*> argv{const_cast<char*>("morphel-server")};
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(MORPHEL_SERVER_PATH, argv.data());
            _exit(127);
        }
        close(fds[1]);
        fd_ = fds[0];
        // The line "morphel-server: serving URL", within 20 s.
        while (url_.empty()) {
            std::string line = NextLine();
            if (line.empty()) break;
            size_t at = line.find("serving ");
            if (at != std::string::npos) url_ = line.substr(at + 8);
        }
    }
    ~Program() {
        if (pid_ > 0) Kill(SIGKILL);
        if (fd_ >= 0) close(fd_);
    }
    const std::string& Url() const { return url_; }
    // The next line the program writes to its standard error (without its end), within 20 s; empty when
    // none comes.
    std::string NextLine() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        size_t end;
        while ((end = text_.find('\n')) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            char buffer[512];
            ssize_t n = read(fd_, buffer, sizeof buffer);
            if (n <= 0) break;
            text_.append(buffer, size_t(n));
        }
        if (end == std::string::npos) return "";
        std::string line = text_.substr(0, end);
        text_.erase(0, end + 1);
        return line;
    }
    // Sends `signal` and waits (up to 20 s) for the end; the wait status, or -1.
    int Kill(int signal) {
        kill(pid_, signal);
        int status = -1;
        for (int i = 0; i < 200; ++i) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return -1;
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string url_;
    std::string text_;  // read and not yet taken
};
