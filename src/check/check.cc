#include "check/check.h"

#include "check/child.h"
#include "check/drift.h"
#include "check/generation.h"
#include "check/hosts.h"
#include "check/panel.h"
#include "check/progress.h"
#include "check/server.h"
#include "check/tree.h"
#include "check/values.h"
#include "db/connection.h"
#include "db/get_param.h"
#include "db/query.h"
#include "env/config.h"
#include "env/webserver.h"
#include "fs/text.h"
#include "fs/tree.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr std::size_t NOTES_MAX = 20;
constexpr char CONFIG_FILE[] = "/etc/kiv/kiv.conf";
constexpr double NEVER = 1e18; // seconds since the epoch

// What the generators must know of the installed Apache.
struct apache_facts {
  char magic[16];
  int version;
  int minor;
};

// Everything that a rebuild needs before its first domain, tried where its failure ends nothing.
void prepare_in_child(child_line &line) {
  if (access(CONFIG_FILE, R_OK) != 0)
    end_run("%s cannot be read: %s", CONFIG_FILE, std::strerror(errno));
  load_product_config();
  const unique_connection db = db_connect_or_report();
  if (!db)
    end_run(NO_CONNECTION);
  apache_facts facts = {};
  get_apache_path(&apache_magic, &facts.version, &facts.minor);
  copy_text(facts.magic, apache_magic);
  send_answer(line, 0, std::string(reinterpret_cast<const char *>(&facts), sizeof facts));
}

// Returns false with the words of what failed.
bool prepare(std::string &failure) {
  static_cast<void>(conf_lookup("PRODUCT_ROOT_D")); // reads the file, for the child, too
  child_process child = start_child(prepare_in_child);
  if (child.pid < 0) {
    failure = std::strerror(errno);
    return false;
  }
  child_answer answer;
  const bool answered = receive_answer(child, answer);
  reap_child(child, failure);
  if (!answered)
    return false;
  static apache_facts facts; // for the life of the process, as the generators want it
  std::memcpy(&facts, answer.text.data(), std::min(sizeof facts, answer.text.size()));
  if (conf_lookup("PRODUCT_ROOT_D") == nullptr) {
    failure = std::string(CONFIG_FILE) + " cannot be read: " + std::strerror(errno);
    return false;
  }
  load_product_config();
  apache_magic = facts.magic;
  apache_version = facts.version;
  apache_minor = facts.minor;
  return true;
}

// The state of one check.
struct check_run {
  const check_options &options;
  check_result &result;
  std::string &failure;

  bool only_diff = false;
  site_list sites{};
  std::vector<std::string> named{};  // stored names of the domains asked for
  std::vector<std::size_t> chosen{}; // their numbers in sites.names
  std::vector<tree_suspect> lying{}; // orphans and leftovers
  host_survey survey{};
  drift_list drift{};
  std::string server_config{};
  std::size_t done = 0;
};

check_state failed(check_run &run, const std::string &reason) {
  run.failure = reason;
  return check_state::failed;
}

check_state state_of(check_run &run, const generation_end &end) {
  if (end.state == generation_state::done)
    return check_state::done;
  run.failure = one_line(end.reason);
  if (end.state == generation_state::failed)
    return check_state::failed;
  run.failure = "this machine refuses a private view of the configuration: " + run.failure;
  return check_state::refused;
}

bool is_asked_for(const check_run &run, const std::string &name) {
  return run.named.empty() || name == SERVER_NAME ||
         std::find(run.named.begin(), run.named.end(), name) != run.named.end();
}

bool find_named_domains(check_run &run, MYSQL *db) {
  for (const std::string &name : run.options.domains) {
    std::string stored;
    if (!find_domain(db, name, stored, run.failure))
      return false;
    run.named.push_back(stored);
  }
  return true;
}

void choose_domains(check_run &run) {
  for (std::size_t i = 0; i < run.sites.names.size(); ++i)
    if (is_asked_for(run, run.sites.names[i]))
      run.chosen.push_back(i);
  run.result.domains = run.chosen.size();
}

// The parent keeps no connection while it has children.
bool read_panel(check_run &run) {
  char message[4097] = "";
  const unique_connection db = db_connect(message, sizeof message);
  if (!db) {
    run.failure = message;
    return false;
  }
  std::string setting;
  if (!read_setting(db.get(), "apache_pipelog", setting, run.failure) || !find_named_domains(run, db.get()) ||
      !read_sites(db.get(), run.sites, run.failure))
    return false;
  pipelog = is_flag_set(setting.c_str()) ? 1 : 0;
  choose_domains(run);
  return true;
}

void note(check_run &run, const std::string &text) {
  if (run.result.notes.size() < NOTES_MAX)
    run.result.notes.push_back(text);
  else if (run.result.notes.size() == NOTES_MAX)
    run.result.notes.push_back("more of the like");
}

// What a generator said and went on.
void note_warnings(check_run &run, const std::string &name, const generated_file &file) {
  if (file.what == file_outcome::written && !file.messages.empty())
    note(run, name + ": " + one_line(file.messages));
}

// What the hosts of a file ask for: of the text as it would be, or of the installed one that stays.
void survey_site(check_run &run, const std::string &name, const std::string &path, const generated_file &file,
                 const live_file &live) {
  const std::string &text = file.what == file_outcome::written ? file.text : live.text;
  survey_configuration(name, text, run.survey, run.result);
  survey_users(name, path, live.text, run.survey, run.result);
}

void take_domain(check_run &run, std::size_t index, generated_file &&file) {
  const std::string &name = run.sites.names[index];
  const std::string path = domain_file_path(name);
  show_progress(++run.done);
  const live_file live = read_live_file(path);
  if (!run.only_diff)
    survey_site(run, name, path, file, live);
  note_warnings(run, name, file);
  compare_domain(run.drift, index, path, file, live);
}

check_state check_domains(check_run &run) {
  begin_progress(run.chosen.size());
  const generation_end end =
      generate_domains(run.sites.names, run.chosen, [&](std::size_t index, generated_file &&file) {
        take_domain(run, index, std::move(file));
      });
  end_progress();
  return state_of(run, end);
}

// Generates the doubtful domains again and keeps those that are still in doubt.
check_state check_again(check_run &run) {
  const std::vector<std::size_t> again = doubtful_domains(run.drift);
  forget_domains(run.drift);
  const generation_end end =
      generate_domains(run.sites.names, again, [&](std::size_t index, generated_file &&file) {
        const std::string path = domain_file_path(run.sites.names[index]);
        compare_domain(run.drift, index, path, file, read_live_file(path));
      });
  return state_of(run, end);
}

check_state check_server(check_run &run, bool try_syntax, server_files &files) {
  std::size_t next = 0;
  const generation_end end = generate_server(
      [&](placed_file &file) { return next_changed_domain(run.drift, next, run.sites.names, file); },
      try_syntax, files);
  if (end.state == generation_state::done)
    compare_server(run.drift, files);
  return state_of(run, end);
}

// The panel writes its rows first and has halyard run then, and several runs wait for each other. So what
// differs is looked at again as long as somebody is at work, within reason.
check_state settle(check_run &run, double begin) {
  constexpr double GRACE = .3;
  constexpr double LONGEST = 20;
  constexpr std::size_t MANY = 200;
  const double give_up = monotonic_seconds() + LONGEST;
  while (is_in_doubt(run.drift) && monotonic_seconds() < give_up) {
    usleep(static_cast<useconds_t>(GRACE * 1e6));
    if (!is_generating() && !is_halyard_starting() && !has_live_file_changed(run.drift, begin))
      return check_state::done;
    const bool are_many = doubtful_domains(run.drift).size() > MANY; // that is no single change
    server_files files;
    check_state state = check_again(run);
    if (state == check_state::done)
      state = check_server(run, false, files);
    if (state != check_state::done || are_many)
      return state;
    begin = NEVER; // what has changed before this has been seen
  }
  return check_state::done;
}

void report_syntax(check_run &run, const server_files &files) {
  if (files.syntax == verdict::not_tried)
    note(run, files.syntax_words.empty() ? "the server was not asked" : one_line(files.syntax_words));
  if (files.syntax == verdict::refused)
    run.result.add(kind::refused, SERVER_NAME, file_of_complaint(files.syntax_words),
                   one_line(files.syntax_words));
}

void survey_server(check_run &run, const server_files &files) {
  const std::string path = server_file_path();
  const live_file live = read_live_file(path);
  survey_site(run, SERVER_NAME, path, files.config, live);
  // The distribution's own SSL host has it, too.
  require_file(SERVER_NAME, std::string(HTTPD_CONF_D) + "/httpd.pem", run.survey);
  report_shared_faults(run.survey, run.result);
  check_descriptors(run.survey.log_files, run.result);
}

// Rows and directories, with a connection of their own.
bool check_surroundings(check_run &run) {
  char message[4097] = "";
  const unique_connection db = db_connect(message, sizeof message);
  if (!db) {
    run.failure = message;
    return false;
  }
  return check_values(db.get(), run.result, run.failure) &&
         scan_tree(run.sites, run.named, db.get(), run.lying, run.failure);
}

// A run that goes on has work files too, and what is new since the list was read is no orphan.
bool report_lying_files(check_run &run) {
  if (run.lying.empty())
    return true;
  char message[4097] = "";
  const unique_connection db = db_connect(message, sizeof message);
  site_list sites;
  if (!db || !read_sites(db.get(), sites, run.failure)) {
    run.failure = db ? run.failure : message;
    return false;
  }
  std::vector<std::string> names;
  for (const tree_suspect &suspect : run.lying)
    if (suspect.name != SERVER_NAME && (names.empty() || names.back() != suspect.name))
      names.push_back(suspect.name);
  std::vector<tree_suspect> again;
  if (!scan_tree(sites, names, db.get(), again, run.failure))
    return false;
  for (const tree_suspect &suspect : again) {
    const bool seen = std::any_of(run.lying.begin(), run.lying.end(), [&](const tree_suspect &before) {
      return before.path == suspect.path && is_unchanged(before);
    });
    const bool in_use = suspect.what == kind::leftover && is_generating();
    const bool explained = suspect.what == kind::leftover && is_left_again(run.drift, suspect.path);
    if (seen && !in_use && !explained)
      run.result.add(suspect.what, suspect.name, suspect.path, suspect.path + ": " + suspect.message);
  }
  return true;
}

// What was missing may have come meanwhile.
void drop_what_is_over(check_run &run) {
  const auto is_over = [&](const finding &found) {
    return !is_asked_for(run, found.name) || (found.is_absence && path_exists(found.file.c_str()));
  };
  std::vector<finding> &findings = run.result.findings;
  findings.erase(std::remove_if(findings.begin(), findings.end(), is_over), findings.end());
}

void sort_findings(check_result &result) {
  std::stable_sort(result.findings.begin(), result.findings.end(),
                   [](const finding &a, const finding &b) { return a.what < b.what; });
}

check_state check_all(check_run &run, double begin) {
  check_state state = check_domains(run);
  server_files files;
  if (state == check_state::done)
    state = check_server(run, !run.only_diff, files);
  note_warnings(run, SERVER_NAME, files.config);
  if (state == check_state::done && !run.only_diff) {
    survey_server(run, files);
    if (!check_surroundings(run))
      return failed(run, run.failure);
  }
  if (state == check_state::done)
    state = settle(run, begin);
  if (state != check_state::done)
    return state;
  if (run.only_diff)
    return print_drift(run.drift, run.sites.names, run.result, run.failure) ? check_state::done
                                                                            : check_state::failed;
  report_syntax(run, files);
  report_drift(run.drift, run.sites.names, run.result);
  if (!report_lying_files(run))
    return failed(run, run.failure);
  drop_what_is_over(run);
  sort_findings(run.result);
  return check_state::done;
}

} // namespace

check_state run_check(const check_options &options, check_result &result, std::string &failure) {
  check_run run{.options = options, .result = result, .failure = failure};
  run.only_diff = options.format == output_format::diff;
  const double begin = monotonic_seconds();
  std::string messages;
  if (!prepare(messages))
    return failed(run, one_line(messages));
  if (!read_panel(run))
    return failed(run, failure);
  const check_state state = check_all(run, static_cast<double>(time(nullptr)));
  result.seconds = monotonic_seconds() - begin;
  return state;
}
