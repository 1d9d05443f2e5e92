#include <morphel-server/Certificates.h>

#include <kitra/Array.h>
#include <kitra/Http.h>
#include <morphel/types.h>

namespace MorphelServer {

Fundix::Ref<Morphel::Fault::SSLVerificationFault> ToVerificationFault(const Kitra::Fault::CertificateRejected& rejected) {
    Fundix::Ref<Kitra::DataArray<Morphel::SSLCertificateData>> chain(new Kitra::DataArray<Morphel::SSLCertificateData>());
    if (rejected.GetChain() != nullptr)
        for (const std::string& pem : rejected.GetChain()->GetValues()) {
            std::vector<uint8_t> der = Kitra::Http::Tls::ToDer(pem);
            Fundix::Ref<Kitra::Array<int8_t>> bytes(new Kitra::Array<int8_t>());
            for (uint8_t b : der) bytes->Append(static_cast<int8_t>(b));
            chain->Append(Fundix::Ref<Morphel::SSLCertificateData>(new Morphel::SSLCertificateData(bytes.Get())).Get());
        }
    return new Morphel::Fault::SSLVerificationFault(rejected.IsSelfSigned(), rejected.GetThumbprint(), rejected.GetReason(),
                                                    Fundix::Optional<int64_t>(), chain.Get());
}

}  // namespace MorphelServer
