// Sub-webs of a site: any bytes as its _vti_pvt/services.cnf.
#include "harness.h"

#include "frontpage/document_root.cc"

#include <filesystem>
#include <set>
#include <span>

namespace {

namespace fs = std::filesystem;

constexpr char LIST[] = "_vti_pvt/services.cnf";
constexpr char HIDDEN[] = "_vti_pvt/services.org";

fs::path top;  // of all that is made here
fs::path docs; // the document root

// Webs below `docs`, and others' beside it, which look just the same.
const char *const OWN_WEBS[] = {".", "sub", "a/b", "a b", "..."};
const char *const OTHERS_WEBS[] = {"other", "documents", "."};

std::vector<fs::path> own_webs;
std::vector<fs::path> others_webs;

void write_file(const fs::path &path, std::string_view content) {
  const unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  REQUIRE(write(file.fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
}

void make_web(const fs::path &web) {
  fs::create_directories(web / "_vti_pvt");
  write_file(web / LIST, "");
}

std::vector<fs::path> make_webs(const fs::path &directory, std::span<const char *const> names) {
  std::vector<fs::path> webs;
  for (const char *name : names) {
    webs.push_back(name[0] == '.' && name[1] == '\0' ? directory : directory / name);
    make_web(webs.back());
  }
  return webs;
}

bool is_there(const fs::path &path) {
  return access(path.c_str(), F_OK) == 0;
}

// The webs of the document root that the list names, wherever their paths lead; each has its list in a real directory
// below the root.
std::set<fs::path> named_webs(std::string_view list) {
  std::set<fs::path> named;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find('\n'), list.size());
    const std::string line(std::string(list.substr(0, end)).c_str()); // up to a NUL
    list.remove_prefix(std::min(end + 1, list.size()));
    if (line.size() < 2 || line[0] != '/')
      continue;
    const unique_text real(realpath((docs.string() + line + "/_vti_pvt").c_str(), nullptr));
    if (real && std::string_view(real.get()).starts_with(docs.string() + "/"))
      named.insert(fs::path(real.get()).parent_path());
  }
  return named;
}

} // namespace

// A document root with directories, links that stay inside, and links that lead out of it.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  char directory[] = "/run/fuzz-XXXXXX";
  REQUIRE(mkdtemp(directory) != nullptr);
  top = fs::canonical(directory);
  docs = top / "docs";
  own_webs = make_webs(docs, OWN_WEBS);
  others_webs = make_webs(top, OTHERS_WEBS);
  fs::create_directory_symlink("../other", docs / "out");
  fs::create_directory_symlink("/", docs / "slash");
  fs::create_directory_symlink("a/b", docs / "in");
  fs::create_directory_symlink("circle", docs / "circle");
  fs::create_directory_symlink("sub", top / "linked");
  fs::create_directories(docs / "trap");
  fs::create_directory_symlink("../../other/_vti_pvt", docs / "trap/_vti_pvt");
  write_file(docs / "file", "");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  const std::string_view list(reinterpret_cast<const char *>(data), size);
  write_file(docs / LIST, list);
  const std::set<fs::path> named = named_webs(list);
  const outcome run = observe([] {
    const unique_fd root = open_document_root(docs.c_str());
    hide_sub_webs(root, docs.c_str());
  });
  REQUIRE(was_quiet(run));
  for (const fs::path &web : others_webs)
    REQUIRE(is_there(web / LIST) && !is_there(web / HIDDEN));
  // Of those behind links only so many are followed.
  const bool all_are_followed = std::count(list.begin(), list.end(), '\n') < LINKED_SUB_WEBS;
  for (const fs::path &web : own_webs) {
    const bool is_hidden = rename((web / HIDDEN).c_str(), (web / LIST).c_str()) == 0; // for the next time
    REQUIRE(!is_hidden || named.contains(web));
    REQUIRE(!all_are_followed || !named.contains(web) || is_hidden);
  }
  return 0;
}
