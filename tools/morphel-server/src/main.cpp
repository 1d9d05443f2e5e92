// morphel-server: serves the in-memory reference service over HTTP until SIGINT or SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>

#include <fundix/Exception.h>
#include <kitra/Http.h>
#include <morphel-server/Service.h>

namespace {

void Usage(std::FILE* out) {
    std::fputs("usage: morphel-server [--listen HOST:PORT] [--users FILE] [--user NAME:PASSWORD]...\n"
               "  --listen   address to serve on (default 127.0.0.1:8085; port 0 picks a free one)\n"
               "  --users    accounts, one name:password per line\n"
               "  --user     one more account\n"
               "Without accounts the one account is demo:demo.\n",
               out);
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    int port = 8085;
    MorphelServer::ServiceOptions options;
    try {
        for (int i = 1; i < argc; ++i) {
            std::string arg = argv[i];
            auto value = [&]() -> std::string {
                if (i + 1 >= argc) throw std::runtime_error(arg + " needs a value");
                return argv[++i];
            };
            if (arg == "--listen") {
                std::string listen = value();
                size_t colon = listen.rfind(':');
                if (colon == std::string::npos) throw std::runtime_error("--listen expects HOST:PORT");
                host = listen.substr(0, colon);
                size_t used = 0;
                std::string digits = listen.substr(colon + 1);
                port = std::stoi(digits, &used);
                if (used != digits.size() || port < 0 || port > 65535 || host.empty())
                    throw std::runtime_error("--listen expects HOST:PORT");
            } else if (arg == "--users") {
                auto accounts = MorphelServer::ReadAccounts(value());
                options.accounts.insert(options.accounts.end(), accounts.begin(), accounts.end());
            } else if (arg == "--user") {
                MorphelServer::Account account;
                if (!MorphelServer::ParseAccount(value(), account)) throw std::runtime_error("--user expects NAME:PASSWORD");
                options.accounts.push_back(account);
            } else if (arg == "-h" || arg == "--help") {
                Usage(stdout);
                return 0;
            } else {
                throw std::runtime_error("unknown argument " + arg);
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "morphel-server: %s\n", e.what());
        Usage(stderr);
        return 2;
    }

    // The signals are taken by sigwait below, on this thread only; the serving threads inherit the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    MorphelServer::Service service(options);
    Kitra::Http::ServerOptions serverOptions;
    serverOptions.host = host;
    serverOptions.port = port;
    serverOptions.versions = MorphelServer::Service::Versions();
    Kitra::Http::Server server(serverOptions);
    service.Attach(server);
    std::mutex logMutex;
    server.SetLogger([&logMutex](const std::string& line) {
        std::lock_guard<std::mutex> lock(logMutex);
        std::fprintf(stderr, "%s\n", line.c_str());
    });
    try {
        server.Start();
    } catch (const Fundix::Exception& e) {
        std::fprintf(stderr, "morphel-server: %s\n", e.GetMessage().c_str());
        return 1;
    }
    std::fprintf(stderr, "morphel-server: serving %s\n", server.GetUrl().c_str());

    int received = 0;
    sigwait(&signals, &received);
    std::fprintf(stderr, "morphel-server: %s, stopping\n", received == SIGINT ? "interrupted" : "terminated");
    server.Stop();
    return 0;
}
