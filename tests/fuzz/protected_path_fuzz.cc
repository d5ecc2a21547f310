// Protected directories: any domain, path and realm, and the block that is written for them.
#include "harness.h"

#include "gen/print.cc"

namespace {

// "" for none.
std::string expected_password_file(const std::string &domain, std::string path) {
  if (path.starts_with('/'))
    path.erase(0, 1);
  std::string name;
  std::size_t start = 0;
  for (std::size_t at; (at = path.find('/', start)) != std::string::npos; start = at + 1) {
    if (at >= TEXT_SIZE) // neither this part nor the rest fits
      break;
    name += path.substr(start, at - start);
    if (name.size() + 1 >= TEXT_SIZE)
      return "";
    name += '@';
  }
  const std::string rest = path.substr(start);
  if (name.size() + rest.size() < TEXT_SIZE)
    name += rest;
  return name.size() > 247 ? "" : std::string(HTTPD_VHOSTS_D) + "/" + domain + "/pd/d.." + name;
}

std::string expected_block(const std::string &directory, const std::string &realm, const std::string &file) {
  return "\t<Directory \"" + directory + "\">\n\t\tAuthType Basic\n\t\tAuthName \"" +
         (realm.empty() ? " " : realm) + "\"\n\t\tAuthUserFile " + (file.empty() ? "(null)" : file) +
         "\n\t\trequire  valid-user\n\t</Directory>\n";
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  HTTPD_VHOSTS_D = "/srv/kiv/vhosts";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  hostile_bytes bytes(data, size);
  const std::string domain = bytes.text();
  const std::string realm = bytes.text();
  const std::string path = bytes.rest();
  const std::string expected = expected_password_file(domain, path);

  unique_text file;
  const outcome run = observe([&] { file = protected_dir_password_file(domain.c_str(), path.c_str()); });
  REQUIRE(was_quiet(run));
  REQUIRE(text_or_empty(file.get()) == expected);

  const outcome printed = observe(
      [&] { print_protected_dir(stdout, path.c_str(), domain.c_str(), realm.c_str(), path.c_str()); });
  REQUIRE(!printed.ended && printed.err.empty());
  REQUIRE(printed.out == expected_block(path, realm, expected));
  return 0;
}
