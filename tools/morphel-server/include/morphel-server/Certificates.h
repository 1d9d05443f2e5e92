// The transport's refusal of a server certificate, as the interface's own fault.
#pragma once

#include <fundix/Ref.h>
#include <kitra/fault/types.h>
#include <morphel/fault/types.h>

namespace MorphelServer {

// morphel.fault.SSLVerificationFault with the presented certificate's SHA-1 thumbprint, whether it signs
// itself, the reason as its message and the chain as DER bytes, the server's own certificate first.
Fundix::Ref<Morphel::Fault::SSLVerificationFault> ToVerificationFault(
    const Kitra::Fault::CertificateRejected& rejected);

}  // namespace MorphelServer
