#include <morphel-server/Machine.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <kitra/Kitra.h>

namespace MorphelServer {

namespace fs = std::filesystem;

namespace {

std::string ReadLine(const fs::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The value after "key" and a colon on a line of /proc/cpuinfo or /proc/meminfo.
bool Field(const std::string& line, const char* key, std::string& value) {
    size_t n = std::char_traits<char>::length(key);
    if (line.compare(0, n, key) != 0) return false;
    size_t colon = line.find(':', n);
    if (colon == std::string::npos || line.find_first_not_of(" \t", n) != colon) return false;
    value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    return true;
}

bool IsListedDisk(const std::string& name) {
    return name.rfind("loop", 0) != 0 && name.rfind("ram", 0) != 0 && name.rfind("zram", 0) != 0;
}

// The whole disks a block device (by kernel name) lies on: itself, the disk of a partition, or the disks
// under a mapped or striped device.
void DisksOf(const std::string& name, std::set<std::string>& out, int depth = 0) {
    if (name.empty() || depth > 8) return;
    std::error_code ec;
    fs::path block = fs::path("/sys/block") / name;
    if (fs::exists(block, ec)) {
        fs::path slaves = block / "slaves";
        bool any = false;
        if (fs::is_directory(slaves, ec)) {
            for (const auto& entry : fs::directory_iterator(slaves, ec)) {
                DisksOf(entry.path().filename().string(), out, depth + 1);
                any = true;
            }
        }
        if (!any) out.insert(name);
        return;
    }
    fs::path real = fs::canonical(fs::path("/sys/class/block") / name, ec);
    if (!ec) DisksOf(real.parent_path().filename().string(), out, depth + 1);
}

}  // namespace

const MachineDisk* Machine::FindDisk(const std::string& id) const {
    for (const auto& d : disks)
        if (d.id == id) return &d;
    return nullptr;
}

const MachineVolume* Machine::FindVolume(const std::string& id) const {
    for (const auto& v : volumes)
        if (v.id == id) return &v;
    return nullptr;
}

Machine ReadMachine() {
    Machine m;
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof(host) - 1) == 0) m.hostname = host;
    if (m.hostname.empty()) m.hostname = "localhost";

    {
        std::ifstream in("/proc/cpuinfo");
        std::string line, value;
        int processors = 0;
        while (std::getline(in, line)) {
            if (Field(line, "processor", value)) ++processors;
            else if (Field(line, "cpu cores", value)) m.coresPerSocket = std::max(1, std::atoi(value.c_str()));
        }
        if (processors > 0) m.numCpus = processors;
        else m.numCpus = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
        m.coresPerSocket = std::min(m.coresPerSocket, m.numCpus);
    }
    {
        std::ifstream in("/proc/meminfo");
        std::string line, value;
        while (std::getline(in, line))
            if (Field(line, "MemTotal", value)) m.memoryBytes = std::atoll(value.c_str()) * 1024;
    }

    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/sys/block", ec)) {
        std::string name = entry.path().filename().string();
        if (!IsListedDisk(name)) continue;
        int64_t sectors = std::atoll(ReadLine(entry.path() / "size").c_str());
        if (sectors <= 0) continue;
        m.disks.push_back({name, sectors * 512});
    }
    std::sort(m.disks.begin(), m.disks.end(), [](const auto& a, const auto& b) { return a.id < b.id; });

    // Mounted block devices; a device mounted at several places (bind mounts) counts once, at its
    // shortest mount point.
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    std::vector<MachineVolume> found;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string device, mountPoint, type;
        if (!(fields >> device >> mountPoint >> type)) continue;
        if (device.rfind("/dev/", 0) != 0) continue;
        auto same = std::find_if(found.begin(), found.end(), [&](const auto& v) { return v.device == device; });
        if (same != found.end()) {
            if (mountPoint.size() < same->id.size()) same->id = mountPoint;
            continue;
        }
        MachineVolume v;
        v.id = mountPoint;
        v.device = device;
        v.fileSystem = type;
        found.push_back(v);
    }
    for (auto& v : found) {
        struct statvfs st {};
        if (statvfs(v.id.c_str(), &st) != 0 || st.f_blocks == 0) continue;
        v.capacityInBytes = int64_t(st.f_blocks) * int64_t(st.f_frsize);
        v.spaceUsedInBytes = int64_t(st.f_blocks - st.f_bfree) * int64_t(st.f_frsize);
        std::set<std::string> disks;
        fs::path real = fs::canonical(v.device, ec);
        if (!ec) DisksOf(real.filename().string(), disks);
        for (const auto& d : disks)
            if (m.FindDisk(d) != nullptr) v.diskIds.push_back(d);
        m.volumes.push_back(std::move(v));
    }
    std::sort(m.volumes.begin(), m.volumes.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
    return m;
}

Fundix::Ref<Morphel::Info::ComputerHardwareInfo> DescribeHardware(const Machine& machine) {
    using namespace Morphel::Info;
    Fundix::Ref<ComputerHardwareInfo> info(new ComputerHardwareInfo());
    info->SetBasicHardware(
        Fundix::Ref<BasicHardwareInfo>(new BasicHardwareInfo(machine.numCpus, machine.coresPerSocket,
                                                             machine.memoryBytes / (1024 * 1024)))
            .Get());
    Fundix::Ref<StorageInfo> storage(new StorageInfo());
    Fundix::Ref<Kitra::DataArray<StorageInfo::DiskInfo>> disks(new Kitra::DataArray<StorageInfo::DiskInfo>());
    for (const auto& d : machine.disks) {
        Fundix::Ref<StorageInfo::DiskInfo> disk(new StorageInfo::DiskInfo());
        disk->SetDiskId(d.id);
        disk->SetCapacityInBytes(d.capacityInBytes);
        int64_t used = 0;
        for (const auto& v : machine.volumes)
            if (std::find(v.diskIds.begin(), v.diskIds.end(), d.id) != v.diskIds.end()) used += v.spaceUsedInBytes;
        disk->SetDiskUsageInBytes(used);
        disks->Append(disk.Get());
    }
    Fundix::Ref<Kitra::DataArray<StorageInfo::VolumeInfo>> volumes(new Kitra::DataArray<StorageInfo::VolumeInfo>());
    for (const auto& v : machine.volumes) {
        Fundix::Ref<StorageInfo::VolumeInfo> volume(new StorageInfo::VolumeInfo());
        volume->SetVolumeId(v.id);
        Fundix::Ref<Kitra::Array<std::string>> ids(new Kitra::Array<std::string>());
        for (const auto& d : v.diskIds) ids->Append(d);
        volume->SetDiskId(ids.Get());
        volume->SetFileSystem(v.fileSystem);
        volume->SetLabel(v.device);
        volume->SetCapacityInBytes(v.capacityInBytes);
        volume->SetSpaceUsedInBytes(v.spaceUsedInBytes);
        volumes->Append(volume.Get());
    }
    storage->SetDisk(disks.Get());
    storage->SetVolume(volumes.Get());
    info->SetStorage(storage.Get());
    return info;
}

}  // namespace MorphelServer
