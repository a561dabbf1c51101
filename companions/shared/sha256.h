// SHA-256 digests (FIPS 180-4), for logins of builds without OpenSSL as well. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace orx {

std::string Sha256Hex(std::string_view text);  // 64 lower-case digits

}  // namespace orx
