// Certificates and keys for tests of TLS.
#pragma once

#include <string>

namespace tarn::test {

// The path of a file that tests/support/make_certificates makes with the openssl command; its head tells the names. The
// files are made when the first one is asked for, and removed when the program ends.
std::string certificate_file(const std::string &name);

}  // namespace tarn::test
