#include "platform/sha256.h"

#include <openssl/evp.h>

namespace ostler {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned int length = 0;
  // The one-shot digest fails only when the library cannot allocate its
  // context. It then reads as 64 zeros rather than as an empty name: every
  // caller builds a file name or an identity from it.
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1) length = 32;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(kHex[digest[i] >> 4]);
    out.push_back(kHex[digest[i] & 0xf]);
  }
  return out;
}

}  // namespace ostler
