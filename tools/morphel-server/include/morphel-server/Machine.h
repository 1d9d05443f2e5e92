// The machine the service runs on, read from the operating system: the one live source it can describe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <fundix/Ref.h>
#include <morphel/info/types.h>

namespace MorphelServer {

struct MachineDisk {
    std::string id;  // the kernel's name: "sda", "vda", "nvme0n1"
    int64_t capacityInBytes = 0;
};

struct MachineVolume {
    std::string id;  // the mount point: "/", "/home"
    std::string device;
    std::string fileSystem;
    std::vector<std::string> diskIds;  // empty when the device lies on no disk the machine lists
    int64_t capacityInBytes = 0;
    int64_t spaceUsedInBytes = 0;
};

struct Machine {
    std::string hostname;
    int32_t numCpus = 1;
    int32_t coresPerSocket = 1;
    int64_t memoryBytes = 0;
    std::vector<MachineDisk> disks;
    std::vector<MachineVolume> volumes;

    const MachineDisk* FindDisk(const std::string& id) const;
    const MachineVolume* FindVolume(const std::string& id) const;
};

// Reads /proc/cpuinfo, /proc/meminfo, /sys/block and the mounted file systems (/proc/self/mounts with
// statvfs). What cannot be read is left at its default; this never fails.
Machine ReadMachine();

// The machine as the interface describes a source's hardware.
Fundix::Ref<Morphel::Info::ComputerHardwareInfo> DescribeHardware(const Machine& machine);

}  // namespace MorphelServer
