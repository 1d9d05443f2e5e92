// The reader on arbitrary bytes. A refusal (any Fundix::Exception, kodl.fault.InvalidRequest above all)
// is the expected answer to most inputs; a crash, a leak, a sanitizer report or any other exception is
// a finding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <fundix/Exception.h>
#include <kitra/Soap.h>
#include <morphel/types.h>

namespace {

const Kitra::Soap::Codec& TheCodec() {
    // Naming one generated type keeps the interface library linked; loading it registers every type.
    (void)Kitra::GetType<Morphel::ComputerSpec>();
    static const Kitra::Soap::Codec codec("morphel.version.version4");
    return codec;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Kitra::Soap::Codec& codec = TheCodec();
    try {
        Kitra::Soap::Message message = codec.Decode(std::string_view(reinterpret_cast<const char*>(data), size));
        (void)message;
    } catch (const Fundix::Exception&) {
    }
    return 0;
}
