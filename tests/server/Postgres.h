// A PostgreSQL server of the tests' own: a cluster made in a temporary folder and served on a unix socket
// there, once per test program, stopped and removed at its end. As root it runs as `nobody`. When it cannot
// start (no PostgreSQL installed, no such user), Reason says why and the tests that need it skip.
#pragma once

#include <libpq-fe.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace TestPostgres {

class Cluster {
public:
    static Cluster& Get() {
        static Cluster cluster;
        return cluster;
    }
    bool Running() const { return reason_.empty(); }
    const std::string& Reason() const { return reason_; }
    // The connection string of a new, empty database.
    std::string NewDatabase() {
        std::string name = "t" + std::to_string(++databases_);
        return Run("postgres", "CREATE DATABASE " + name) ? Conninfo(name) : "";
    }
    // Runs `sql` in the database `db`; false when it fails.
    bool Run(const std::string& db, const std::string& sql) {
        PGconn* conn = PQconnectdb(Conninfo(db).c_str());
        PGresult* r = PQexec(conn, sql.c_str());
        bool ok = PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK;
        PQclear(r);
        PQfinish(conn);
        return ok;
    }
    // The same database as a postgresql:// URI.
    std::string Uri(const std::string& conninfo) const {
        return "postgresql:///" + conninfo.substr(conninfo.rfind('=') + 1) + "?host=" + folder_ +
               "&port=5432&user=morphel";
    }
    std::string Conninfo(const std::string& db) const {
        return "host=" + folder_ + " port=5432 user=morphel dbname=" + db;
    }

private:
    Cluster() {
        const std::string bin = "/usr/lib/postgresql/15/bin/";
        if (!std::filesystem::exists(bin + "pg_ctl")) {
            reason_ = "PostgreSQL 15 is not installed (" + bin + "pg_ctl; scripts/setup.sh installs it)";
            return;
        }
        char name[] = "/tmp/morphel-pg-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            reason_ = "no temporary folder";
            return;
        }
        folder_ = name;
        std::string as;
        if (geteuid() == 0) {  // PostgreSQL refuses to run as root
            const passwd* nobody = getpwnam("nobody");
            if (nobody == nullptr || chown(name, nobody->pw_uid, nobody->pw_gid) != 0) {
                reason_ = "running as root and no user nobody to run PostgreSQL as";
                return;
            }
            as = "runuser -u nobody -- ";
        }
        const std::string data = folder_ + "/data", log = folder_ + "/server.log";
        std::string initdb = as + bin + "initdb -D " + data + " -A trust -U morphel -E UTF8 --no-sync >" +
                             folder_ + "/initdb.log 2>&1";
        // No durability needed: the cluster lives as long as the test program.
        std::string start = as + bin + "pg_ctl -D " + data + " -w -t 30 -l " + log + " -o \"-k " + folder_ +
                            " -c listen_addresses='' -F -c max_connections=40\" start >/dev/null 2>&1";
        if (std::system(initdb.c_str()) != 0 || std::system(start.c_str()) != 0) {
            reason_ = "PostgreSQL could not start (see " + folder_ + ")";
            return;
        }
        stop_ = as + bin + "pg_ctl -D " + data + " -m immediate stop >/dev/null 2>&1";
    }
    // A cluster that failed to start keeps its folder, to look at.
    ~Cluster() {
        if (!stop_.empty() && std::system(stop_.c_str()) == 0) std::filesystem::remove_all(folder_);
    }

    std::string folder_, stop_, reason_;
    int databases_ = 0;
};

}  // namespace TestPostgres
