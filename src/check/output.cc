#include "check/output.h"

#include "fs/handles.h"
#include "fs/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace {

constexpr int WIDEST_KIND = 11;
constexpr std::size_t WIDEST_NAME = 40;

struct colours {
  const char *critical = "";
  const char *warning = "";
  const char *good = "";
  const char *plain = "";
};

colours choose_colours() {
  const char *terminal = std::getenv("TERM");
  if (isatty(STDOUT_FILENO) == 0 || !is_empty(std::getenv("NO_COLOR")) ||
      (terminal != nullptr && std::strcmp(terminal, "dumb") == 0))
    return {};
  return {"\033[31m", "\033[33m", "\033[32m", "\033[0m"};
}

// Characters, not bytes; the text is valid UTF-8.
std::size_t width_of(const std::string &text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string shown_name(const std::string &name) {
  return name.empty() ? "(empty)" : printable(name);
}

std::string padded(const std::string &text, std::size_t width) {
  const std::size_t used = width_of(text);
  return used < width ? text + std::string(width - used, ' ') : text;
}

std::size_t widest_name(const check_result &result) {
  std::size_t widest = 0;
  for (const finding &found : result.findings)
    widest = std::max(widest, width_of(shown_name(found.name)));
  return std::min(widest, WIDEST_NAME);
}

std::string counted(std::size_t number, const char *what) {
  return std::to_string(number) + " " + what;
}

std::string counted_domains(const check_result &result) {
  return counted(result.domains, result.domains == 1 ? "domain" : "domains");
}

// "3 stale, 1 orphan"; "" when there is nothing.
std::string totals_of(const check_result &result) {
  std::string totals;
  for (const kind_row &row : KINDS)
    if (const std::size_t number = result.count(row.value))
      totals += (totals.empty() ? "" : ", ") + counted(number, row.name);
  return totals;
}

// Of the whole check: none, warning, critical.
int worst_of(const check_result &result) {
  int worst = 0;
  for (const finding &found : result.findings)
    worst = std::max(worst, found.weight == severity::critical ? 2 : 1);
  return worst;
}

void write_metric(FILE *out, const char *name, const char *help) {
  std::fprintf(out, "# HELP %s %s\n# TYPE %s gauge\n", name, help, name);
}

void write_all_metrics(FILE *out, const check_result &result) {
  write_metric(out, "halyard_findings", "Findings of the last check of the web server's configuration.");
  for (const kind_row &row : KINDS)
    std::fprintf(out, "halyard_findings{kind=\"%s\"} %zu\n", row.name, result.count(row.value));
  write_metric(out, "halyard_domains", "Domains that the last check looked at.");
  std::fprintf(out, "halyard_domains %zu\n", result.domains);
  write_metric(out, "halyard_check_timestamp_seconds",
               "When the last check ended, in seconds since the epoch.");
  std::fprintf(out, "halyard_check_timestamp_seconds %lld\n", static_cast<long long>(std::time(nullptr)));
  write_metric(out, "halyard_check_duration_seconds", "How long the last check took.");
  std::fprintf(out, "halyard_check_duration_seconds %.3f\n", result.seconds);
}

} // namespace

void print_summary(const check_result &result) {
  const colours colour = choose_colours();
  const std::size_t width = widest_name(result);
  for (const finding &found : result.findings)
    std::printf("%s%-*s%s  %s  %s\n", found.weight == severity::critical ? colour.critical : colour.warning,
                WIDEST_KIND, row_of(found.what).name, colour.plain,
                padded(shown_name(found.name), width).c_str(), printable(found.message).c_str());
  const std::string totals = totals_of(result);
  std::printf("%s%s: %s%s\n", totals.empty() ? colour.good : "", counted_domains(result).c_str(),
              totals.empty() ? "nothing found" : totals.c_str(), totals.empty() ? colour.plain : "");
}

void print_json(const check_result &result) {
  nlohmann::ordered_json document;
  document["findings"] = nlohmann::ordered_json::array();
  for (const finding &found : result.findings)
    document["findings"].push_back({{"kind", row_of(found.what).name},
                                    {"name", printable(found.name)},
                                    {"file", printable(found.file)},
                                    {"message", printable(found.message)}});
  for (const kind_row &row : KINDS)
    document["totals"][row.name] = result.count(row.value);
  document["domains"] = result.domains;
  document["seconds"] = static_cast<double>(static_cast<long long>(result.seconds * 1000)) / 1000;
  std::puts(document.dump(2).c_str());
}

int print_monitoring(const check_result &result) {
  constexpr const char *STATES[] = {"OK", "WARNING", "CRITICAL"};
  const int worst = worst_of(result);
  std::printf("HALYARD %s - %s, %zu stale", STATES[worst], counted_domains(result).c_str(),
              result.count(kind::stale));
  for (const kind_row &row : KINDS)
    if (row.value != kind::stale && result.count(row.value) != 0)
      std::printf(", %zu %s", result.count(row.value), row.name);
  // The two that the panel's own runs should keep at nothing come first.
  std::printf(" | stale=%zu missing=%zu", result.count(kind::stale), result.count(kind::missing));
  for (const kind_row &row : KINDS)
    if (row.value != kind::stale && row.value != kind::missing)
      std::printf(" %s=%zu", row.name, result.count(row.value));
  std::printf(" domains=%zu time=%.3fs\n", result.domains, result.seconds);
  return worst;
}

bool write_metrics(const std::string &path, const check_result &result) {
  std::string temporary = path + ".XXXXXX";
  unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (fd.fd < 0)
    return false;
  unique_file out(fdopen(fd.fd, "w"));
  if (out)
    static_cast<void>(fd.release());
  bool written = out && fchmod(fileno(out.get()), 0644) == 0;
  if (written)
    write_all_metrics(out.get(), result);
  written = written && close_file(std::move(out)) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    const errno_guard keep;
    unlink(temporary.c_str());
  }
  return written;
}
