#include "update/Libsodium.h"

#include "base/SharedLibrary.h"
#include "base/SparLog.h"

namespace orvane {
namespace {

struct Opened {
  Libsodium functions{};
  std::string problem;
};

const Opened& TheLibrary() {
  static const Opened opened = [] {
    Opened result;
    static SharedLibrary library(ORVANE_SODIUM_SONAME, "ORVANE_SODIUM_LIBRARY");
    Libsodium& f = result.functions;
    f.hash_sha256_init = ORVANE_LIBRARY_FUNCTION(library, crypto_hash_sha256_init);
    f.hash_sha256_update = ORVANE_LIBRARY_FUNCTION(library, crypto_hash_sha256_update);
    f.hash_sha256_final = ORVANE_LIBRARY_FUNCTION(library, crypto_hash_sha256_final);
    f.sign_keypair = ORVANE_LIBRARY_FUNCTION(library, crypto_sign_keypair);
    f.sign_ed25519_sk_to_pk = ORVANE_LIBRARY_FUNCTION(library, crypto_sign_ed25519_sk_to_pk);
    f.sign_detached = ORVANE_LIBRARY_FUNCTION(library, crypto_sign_detached);
    f.sign_verify_detached = ORVANE_LIBRARY_FUNCTION(library, crypto_sign_verify_detached);
    f.bin2base64 = ORVANE_LIBRARY_FUNCTION(library, sodium_bin2base64);
    f.base642bin = ORVANE_LIBRARY_FUNCTION(library, sodium_base642bin);
    f.bin2hex = ORVANE_LIBRARY_FUNCTION(library, sodium_bin2hex);
    f.memzero = ORVANE_LIBRARY_FUNCTION(library, sodium_memzero);
    auto init = ORVANE_LIBRARY_FUNCTION(library, sodium_init);
    if (!library.complete())
      result.problem = library.error();
    // Picks the implementations for this processor and seeds the random
    // source the keys are made from; safe to call again, done once here.
    else if (init() < 0)
      result.problem = library.fileName() + " did not start";
    if (!result.problem.empty())
      SparLog("update: signatures cannot be made or checked (%@)", result.problem);
    return result;
  }();
  return opened;
}

} // namespace

const Libsodium* OpenLibsodium() {
  const Opened& opened = TheLibrary();
  return opened.problem.empty() ? &opened.functions : nullptr;
}

const std::string& LibsodiumProblem() {
  return TheLibrary().problem;
}

} // namespace orvane
