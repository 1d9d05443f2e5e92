// A program that uses the installed bindings: builds a source description, compares, diffs and raises a
// fault.
#include <iostream>

#include <kitra/Kitra.h>
#include <morphel/fault/types.h>
#include <morphel/types.h>

int main() {
    using Morphel::ComputerSpec;
    Fundix::Ref<ComputerSpec::LiveComputerLocation> live(new ComputerSpec::LiveComputerLocation(
        "fileserver-03", 443, std::string("administrator"), Fundix::Optional<std::string>(), "windowsOs",
        Fundix::Optional<bool>(true), Fundix::Optional<std::string>()));
    Fundix::Ref<ComputerSpec> spec(new ComputerSpec(live.Get()));

    Fundix::Ref<ComputerSpec> copy(spec->_Clone());
    static_cast<ComputerSpec::LiveComputerLocation*>(copy->GetLocation())->SetHostname("fileserver-04");
    Kitra::PropertyDiffSet diffs;
    spec->_DiffProperties(copy.Get(), "spec", diffs);
    std::cout << spec->_GetType()->GetName() << " differs at";
    for (const auto& path : diffs)
        std::cout << " " << path;
    std::cout << "\n";

    try {
        Fundix::Ref<Morphel::Fault::FileNotFound> fault(new Morphel::Fault::FileNotFound("C:\\boot.ini"));
        fault->Throw();
    } catch (const Morphel::Fault::MorphelFileFault::Exception& e) {
        std::cout << "caught " << e.what() << " for " << e.GetFault()->GetFile() << "\n";
    }
    return Kitra::GetTypeMap()->GetType("morphel.task.TaskInfo") != nullptr ? 0 : 1;
}
