#include "check/certificate.h"

#include "check/files.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

struct free_openssl {
  void operator()(BIO *bio) const noexcept { BIO_free(bio); }
  void operator()(X509 *certificate) const noexcept { X509_free(certificate); }
  void operator()(EVP_PKEY *key) const noexcept { EVP_PKEY_free(key); }
};
using unique_bio = std::unique_ptr<BIO, free_openssl>;
using unique_certificate = std::unique_ptr<X509, free_openssl>;
using unique_key = std::unique_ptr<EVP_PKEY, free_openssl>;

unique_bio open_text(const std::string &text) {
  return unique_bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

unique_certificate first_certificate(const std::string &text) {
  const unique_bio bio = open_text(text);
  unique_certificate certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  return certificate;
}

// Nobody is there to be asked for a pass phrase. `user` is set when one was wanted.
int no_pass_phrase(char * /*buffer*/, int /*size*/, int /*writing*/, void *user) {
  *static_cast<bool *>(user) = true;
  return -1;
}

unique_key first_key(const std::string &text, bool &locked) {
  const unique_bio bio = open_text(text);
  unique_key key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, no_pass_phrase, &locked) : nullptr);
  ERR_clear_error();
  return key;
}

// The server follows links here; a pipe or device would hold it up.
std::string read_fault(const char *path, std::string &text) {
  const std::unique_ptr<char, decltype(&free)> real(realpath(path, nullptr), free);
  if (real && read_whole_file(real.get(), text))
    return text.empty() ? "is empty" : "";
  if (errno == ENOENT)
    return "is missing";
  return errno == EINVAL ? "is not a file" : std::string("cannot be read: ") + std::strerror(errno);
}

} // namespace

std::string certificate_fault(const char *path) {
  std::string text;
  std::string fault = read_fault(path, text);
  if (!fault.empty())
    return fault;
  const unique_certificate certificate = first_certificate(text);
  if (!certificate)
    return "holds no certificate";
  bool locked = false;
  const unique_key key = first_key(text, locked);
  if (locked)
    return "holds a key with a pass phrase, which a restart would wait for";
  if (!key)
    return "holds no key";
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    ERR_clear_error();
    return "holds the key of another certificate";
  }
  if (X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0)
    return "has expired";
  return "";
}

std::string ca_file_fault(const char *path) {
  std::string text;
  std::string fault = read_fault(path, text);
  if (fault.empty() && !first_certificate(text))
    fault = "holds no certificate";
  return fault;
}
