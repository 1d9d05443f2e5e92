// What a stranger can send does not grow the server: a flood of failed logins with names of megabytes
// leaves its resident memory within a bound, and a session that hoards history collectors is refused past
// its cap while another session still gets its own.
#include <fstream>

#include "Support.h"

namespace {

using Fundix::Ref;

// The resident memory of the process `pid`, in KiB (VmRSS); -1 when unread.
long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

TEST(Flood, FailedLoginsWithHugeNamesAndCollectorHoardersLeaveTheServerBounded) {
    // A cheap hash (SHA-512 crypt, 1000 rounds): the flood costs parsing, not hashing.
    TempFolder folder;
    const std::string users = folder.path + "/users";
    std::ofstream(users) << "demo:$6$rounds=1000$floodsalt$jOujx/LRQIA3PN.KFynn6kQDowSG1Xj7P/"
                            "SfeXmYTZmdnDJXGmKDTIfHaZRL2mIA9m0C26k6JViP7w/Zs8tlZ.:*\n";
    Program server({"--listen", "127.0.0.1:0", "--memory", "--users", users});
    ASSERT_FALSE(server.Url().empty());
    Client a(server.Url()), b(server.Url(), "");
    std::string line = server.NextLine(5);  // each request logged
    EXPECT_NE(line.find("morphel.SessionManager.login 200"), std::string::npos) << line;
    const long start = ResidentKiB(server.Pid());
    ASSERT_GT(start, 0);
    // 200 failed logins, 3 MiB names each, from four clients at once.
    const std::string name(size_t(3) << 20, 'x');
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c)
        clients.emplace_back([&] {
            Client stranger(server.Url(), "");
            for (int i = 0; i < 50; ++i)
                ExpectFault<Dovra::Fault::InvalidLogin>([&] { stranger.Login(name, "wrong"); });
        });
    for (auto& c : clients)
        c.join();
#if !defined(__SANITIZE_ADDRESS__)  // the address sanitizer keeps freed memory in quarantine (256 MiB)
    const long after = ResidentKiB(server.Pid());
    EXPECT_LT(after, start + 64 * 1024) << "resident " << start << " KiB before, " << after << " KiB after";
#endif

    // A hoarder gets 32 collectors of every kind together, then no more; another session still gets its own,
    // and cannot reach the hoarder's.
    std::vector<Ref<Kitra::MoRef>> hoard;
    for (int i = 0; i < 32; ++i)
        hoard.push_back(a.NewCollector(i % 3));
    for (int kind = 0; kind < 3; ++kind)
        ExpectFault<Dovra::Fault::InvalidState>([&] { a.NewCollector(kind); });
    b.Login("demo", "demo");
    Ref<Kitra::DataArray<Morphel::Task::TaskInfo>> page;
    b.Make<Morphel::Task::TaskHistoryCollectorStub>(b.NewCollector(1).Get())->ReadNext(1, page);
    auto theirs = b.Make<Morphel::Task::TaskHistoryCollectorStub>(hoard[1].Get());
    ExpectFault<Kitra::Fault::ManagedObjectNotFound>([&] { theirs->ReadNext(1, page); });
    ExpectFault<Dovra::Fault::NotFound>([&] { theirs->Remove(); });
}

}  // namespace
