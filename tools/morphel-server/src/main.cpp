// morphel-server: serves the reference service over HTTP or HTTPS until SIGINT or SIGTERM, its state kept in
// a database file of the state folder (or in memory).
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <fundix/Exception.h>
#include <kitra/Http.h>
#include <morphel-server/Service.h>

namespace {

// "90s", "15m", "12h", "7d", "0".
std::chrono::seconds ParseAge(const std::string& text) {
    size_t used = 0;
    long long count = -1;
    try {
        count = std::stoll(text, &used);
    } catch (const std::exception&) {
    }
    std::string unit = text.substr(std::min(used, text.size()));
    long long scale = unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86400 : 0;
    if (count == 0 && unit.empty()) return std::chrono::seconds(0);
    if (count < 0 || scale == 0 || count > INT64_MAX / 1000000 / scale)
        throw std::runtime_error("--max-event-age expects a number with s, m, h or d");
    return std::chrono::seconds(count * scale);
}

void Usage(std::FILE* out) {
    std::fputs(
        "usage: morphel-server [--listen HOST:PORT] [--users FILE] [--user NAME:PASSWORD]...\n"
        "                      [--tls [--cert FILE --key FILE]] [--state DIR] [--plain-http]\n"
        "                      [--database FILE | --memory] [--max-events N] [--max-event-age AGE]\n"
        "       morphel-server --hash-password NAME   (reads the password from standard input)\n"
        "  --listen      address to serve on (default 127.0.0.1:8085; port 0 picks a free one)\n"
        "  --users       the accounts file: one name:hash[:privileges] per line\n"
        "  --user        one more account, its password given in plain text\n"
        "  --tls         serve HTTPS; without --cert and --key with a self-signed certificate made once and\n"
        "                kept in the state folder, so that its thumbprint stays the same\n"
        "  --cert, --key the certificate (chain) and private key, PEM files (implies --tls)\n"
        "  --state       the state folder (default $XDG_STATE_HOME/morphel-server or\n"
        "                ~/.local/state/morphel-server): the database state.db and the certificate\n"
        "  --database    the database file that keeps jobs, tasks, events and collectors (default\n"
        "                <state folder>/state.db), or a postgresql://USER@HOST:PORT/DB database,\n"
        "                which several servers may share (with sessions)\n"
        "  --memory      keep them in memory only: lost when the server stops\n"
        "  --max-events  the most events kept (default 10000; 0: no limit)\n"
        "  --max-event-age  the oldest events kept, a number with s, m, h or d (default 7d; 0: no limit)\n"
        "  --plain-http  serve plain HTTP on an address other than loopback (passwords travel unencrypted)\n"
        "  --hash-password  prints the accounts file's line for NAME with the password read\n"
        "                from standard input, hashed (yescrypt, salted)\n"
        "Without accounts the one account is demo:demo.\n",
        out);
}

// Prints "name:hash" for the password on standard input's first line.
int HashPassword(const std::string& name) {
    if (name.empty() || name.find(':') != std::string::npos) {
        std::fprintf(stderr, "morphel-server: --hash-password expects an account name without ':'\n");
        return 2;
    }
    if (isatty(STDIN_FILENO)) std::fprintf(stderr, "password for %s: ", name.c_str());
    std::string password;
    if (!std::getline(std::cin, password)) {
        std::fprintf(stderr, "morphel-server: no password on standard input\n");
        return 2;
    }
    if (!password.empty() && password.back() == '\r') password.pop_back();
    try {
        std::printf("%s:%s\n", name.c_str(), MorphelServer::HashPassword(password).c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "morphel-server: %s\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    int port = 8085;
    bool tls = false, plainHttp = false, memory = false;
    std::string database;
    std::shared_ptr<Kitra::Http::SessionStore> sessions;  // shared with the other servers on the database
    std::string certFile, keyFile, stateFolder = Kitra::Http::Tls::DefaultStateFolder("morphel-server");
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
                MorphelServer::Credentials given;
                if (!MorphelServer::ParseCredentials(value(), given)) throw std::runtime_error("--user expects NAME:PASSWORD");
                options.accounts.push_back(MorphelServer::MakeAccount(given.name, given.password));
            } else if (arg == "--hash-password") {
                return HashPassword(value());
            } else if (arg == "--tls") {
                tls = true;
            } else if (arg == "--cert") {
                certFile = value();
                tls = true;
            } else if (arg == "--key") {
                keyFile = value();
                tls = true;
            } else if (arg == "--state") {
                stateFolder = value();
            } else if (arg == "--database") {
                database = value();
            } else if (arg == "--memory") {
                memory = true;
            } else if (arg == "--max-events") {
                std::string text = value();
                size_t used = 0;
                long long count = -1;
                try {
                    count = std::stoll(text, &used);
                } catch (const std::exception&) {
                }
                if (count < 0 || used != text.size())
                    throw std::runtime_error("--max-events expects a count");
                options.maxEvents = size_t(count);
            } else if (arg == "--max-event-age") {
                options.maxEventAge = ParseAge(value());
            } else if (arg == "--plain-http") {
                plainHttp = true;
            } else if (arg == "-h" || arg == "--help") {
                Usage(stdout);
                return 0;
            } else {
                throw std::runtime_error("unknown argument " + arg);
            }
        }
        if (certFile.empty() != keyFile.empty()) throw std::runtime_error("--cert and --key go together");
        if (memory && !database.empty())
            throw std::runtime_error("--database and --memory exclude each other");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "morphel-server: %s\n", e.what());
        Usage(stderr);
        return 2;
    }

    Kitra::Http::Tls::Identity identity;
    if (tls) {
        try {
            if (!certFile.empty()) {
                identity = Kitra::Http::Tls::Load(certFile, keyFile);
            } else {
                char name[256] = "localhost";
                gethostname(name, sizeof name - 1);
                std::vector<std::string> names{name, "localhost", "127.0.0.1", "::1"};
                if (host != "0.0.0.0" && host != "::" && host != name && host != "localhost" && host != "127.0.0.1") names.push_back(host);
                identity = Kitra::Http::Tls::LoadOrCreate(stateFolder, name, names);
            }
        } catch (const Fundix::Exception& e) {
            std::fprintf(stderr, "morphel-server: %s\n", e.GetMessage().c_str());
            return 1;
        }
    }

    if (!memory) {
        try {
            if (database.empty()) {
                std::filesystem::create_directories(stateFolder);
                std::filesystem::permissions(stateFolder, std::filesystem::perms::owner_all);
                database = (std::filesystem::path(stateFolder) / "state.db").string();
            }
            if (MorphelServer::IsPostgresUri(database)) {
                options.state = MorphelServer::NewPostgresState(database);
                Kitra::Http::ServerOptions defaults;
                sessions = MorphelServer::NewPostgresSessionStore(
                    database, {defaults.sessionIdle, defaults.sessionLifetime, defaults.sessionsPerUser});
                database = MorphelServer::DescribePostgres(database);
            } else {
                options.state = MorphelServer::NewSqliteState(database);
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "morphel-server: %s\n", e.what());
            return 1;
        }
        std::fprintf(stderr, "morphel-server: state kept in %s\n", database.c_str());
    }

    // The signals are taken by sigwait below, on this thread only; the serving threads inherit the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::unique_ptr<MorphelServer::Service> owned;
    try {
        owned = std::make_unique<MorphelServer::Service>(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "morphel-server: %s\n", e.what());
        return 1;
    }
    MorphelServer::Service& service = *owned;
    Kitra::Http::ServerOptions serverOptions;
    serverOptions.host = host;
    serverOptions.port = port;
    serverOptions.versions = MorphelServer::Service::Versions();
    serverOptions.tls = identity;
    serverOptions.allowPlainHttp = plainHttp;
    serverOptions.sessionStore = sessions;
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
    if (server.IsTls()) {
        std::fprintf(stderr, "morphel-server: certificate SHA-1 thumbprint %s\n", server.GetThumbprint().c_str());
        std::fprintf(stderr, "morphel-server: certificate SHA-256 thumbprint %s\n",
                     server.GetThumbprint(Kitra::Http::Tls::Digest::Sha256).c_str());
    }

    int received = 0;
    sigwait(&signals, &received);
    std::fprintf(stderr, "morphel-server: %s, stopping\n", received == SIGINT ? "interrupted" : "terminated");
    server.Stop();
    return 0;
}
