// User and group names as numeric ids.
#pragma once

#include <sys/types.h>

// Group of every hosting account, and the user that the web server runs as.
inline constexpr char HOSTING_GROUP[] = "kivcln";
inline constexpr char WEB_SERVER_USER[] = "wwwrun";

// Whether getpwnam knows the user. A run over many domains asks for as many users: after a few questions the
// user database is read once as a whole, and only names that it did not list are asked for one by one.
bool user_exists(const char *name);

// The user's uid, or its primary gid with `want_gid`. 0 after a report when there is no such user.
id_t user_id_by_name(const char *name, bool want_gid);

// The gid of a group name, or of a decimal number that is the gid of some group. 0 after a report otherwise;
// the empty text is the number 0.
gid_t group_id_by_name(const char *text);
