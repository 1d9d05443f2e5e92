// The reference service: the root object, sessions, queries about the machine it runs on, conversion jobs
// with simulated tasks, events with history collectors, and a diagnostic manager, served through a
// Kitra::Http::Server. Each managed object is an implementation class over the generated base of its
// managed type (src/*.cpp, one file per manager); what they keep between calls lives in a State.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <kitra/Http.h>
#include <morphel-server/Accounts.h>
#include <morphel-server/State.h>

namespace MorphelServer {

struct ServiceOptions {
    std::vector<Account> accounts;  // none: the one account demo:demo, holding every privilege
    // How long a simulated conversion runs from start to success.
    std::chrono::milliseconds conversionTime{2500};
    // Where jobs, tasks, events and collectors are kept; none: in memory (NewMemoryState).
    std::shared_ptr<State> state;
    // The event history keeps at most this many events, none older than this; the oldest go first, as
    // each event is recorded. 0: no limit.
    size_t maxEvents = 10000;
    std::chrono::seconds maxEventAge = std::chrono::hours(24 * 7);
    // The longest the scheduler waits before it looks at the state again: for schedules that another
    // server on a shared database made, and for tasks whose server ended while they ran.
    std::chrono::milliseconds stateCheckInterval{30000};
};

// The description of the fault of a task that the server's restart cut off.
inline constexpr const char* kInterruptedTask =
    "The server restarted while the task ran; the task did not finish";
// The description of the fault of a task whose server ended while it ran, failed by another server that
// shares the state.
inline constexpr const char* kOrphanedTask =
    "The server that ran the task ended while it ran; the task did not finish";

// How many scheduled tasks one job may have: ScheduledTaskManager.create refuses more
// (kodl.fault.InvalidArgument "obj").
inline constexpr size_t kMaxScheduledTasksPerJob = 32;

// The managed objects the service registers, by identifier.
inline constexpr const char* kServiceInstanceId = "ServiceInstance";
inline constexpr const char* kSessionManagerId = "SessionManager";
inline constexpr const char* kQueryManagerId = "QueryManager";
inline constexpr const char* kConversionManagerId = "ConversionManager";
inline constexpr const char* kTaskManagerId = "TaskManager";
inline constexpr const char* kEventManagerId = "EventManager";
inline constexpr const char* kDiagnosticManagerId = "DiagnosticManager";
inline constexpr const char* kScheduledTaskManagerId = "ScheduledTaskManager";
inline constexpr const char* kConversionFolderId = "ConversionFolder";  // the conversion manager's rootFolder
inline constexpr const char* kConversionFolderName = "Conversion jobs";

class Service {
public:
    // A task the state holds as queued or running was cut off by the end of the process that ran it: the
    // service fails it (morphel.fault.CloneFault, kInterruptedTask), clears its job's active task and
    // records the failure.
    explicit Service(ServiceOptions options = {});
    // Waits for the conversions still running. Stop the server first: its objects call into the service.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Registers the managed objects with `server` and installs the privilege check and the faults for a
    // call without a session (dovra.fault.NotAuthenticated) and for a missing privilege
    // (dovra.fault.NoPermission). A service serves one server.
    void Attach(Kitra::Http::Server& server);

    // The API versions served, newest first.
    static std::vector<std::string> Versions();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace MorphelServer
