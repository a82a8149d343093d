// The certificate by which an appliance speaks TLS outside the bus. It is its own authority and tells nobody who the
// appliance is; it keeps what is said from others' eyes.
#ifndef TARN_PLATFORM_CLUSTERD_APPLIANCE_CERTIFICATE_H
#define TARN_PLATFORM_CLUSTERD_APPLIANCE_CERTIFICATE_H

#include <string>

namespace tarn::platform {

constexpr char kApplianceCertificate[] = "/etc/config/tarn_cluster/appliance.pem";

// Makes the file, with certificate and key, unless it is there. Answers 0 or a negative code.
int ensure_appliance_certificate(const std::string &path);

}  // namespace tarn::platform

#endif
