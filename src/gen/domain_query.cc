#include "gen/domain_query.h"

#include "db/connection.h"
#include "fs/text.h"

unique_result select_by_domain_name(MYSQL *db, const char *select, const char *domain, const char *failure) {
  const unique_text escaped = db_escape_string(db, domain);
  const bounded_text query("%s'%s'", select, escaped.get());
  const bool is_full = query.length() == TEXT_SIZE - 1;
  if (is_full && std::strcmp(escaped.get(), domain) != 0)
    end_run("%s: the name of the domain does not fit into the statement\n", failure);
  return db_select_or_end_run(db, query.c_str(), failure);
}

void send_by_domain_name_ahead(MYSQL *db, const char *select, const char *domain) {
  const unique_text escaped = db_escape_string(db, domain);
  const bounded_text query("%s'%s'", select, escaped.get());
  if (query.length() < TEXT_SIZE - 1)
    db_send_ahead(db, query.c_str());
}
