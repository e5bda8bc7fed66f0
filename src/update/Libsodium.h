// libsodium, which the update's signature check and MANIFEST hashes use, is
// opened by their first use rather than at exec: a start that applies no
// update neither maps nor relocates it. Its headers give the types of the
// functions looked up.
#pragma once

#include <sodium.h>

#include <string>

namespace orvane {

// The functions of libsodium that the signing and the check call.
struct Libsodium {
  decltype(&crypto_hash_sha256_init) hash_sha256_init;
  decltype(&crypto_hash_sha256_update) hash_sha256_update;
  decltype(&crypto_hash_sha256_final) hash_sha256_final;
  decltype(&crypto_sign_keypair) sign_keypair;
  decltype(&crypto_sign_ed25519_sk_to_pk) sign_ed25519_sk_to_pk;
  decltype(&crypto_sign_detached) sign_detached;
  decltype(&crypto_sign_verify_detached) sign_verify_detached;
  decltype(&sodium_bin2base64) bin2base64;
  decltype(&sodium_base642bin) base642bin;
  decltype(&sodium_bin2hex) bin2hex;
  decltype(&sodium_memzero) memzero;
};

// The library's functions, with sodium_init() done, or nullptr when the
// library cannot be opened, lacks one of them or does not start; the log
// then says why, once. Opened on the first call; safe from any thread. The
// file opened is the soname it was built against, or the one
// $ORVANE_SODIUM_LIBRARY names.
const Libsodium* OpenLibsodium();

// Why OpenLibsodium() gives nullptr; empty when it does not.
const std::string& LibsodiumProblem();

} // namespace orvane
