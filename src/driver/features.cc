#include "driver/features.h"

#include "env/webserver.h"

#include <cstdio>
#include <cstring>

int print_feature(const char *key, const char *value) {
  const bool bare = std::strcmp(value, "true") == 0 || std::strcmp(value, "false") == 0;
  const int written = bare ? std::printf("$features['%s'] = %s;\n", key, value)
                           : std::printf("$features['%s'] = \"%s\";\n", key, value);
  return written > 0 ? 0 : -1;
}

int print_features() {
  print_feature("WEB_Server", "Apache");
  print_feature("WEB_Server_package", Apache2 ? "httpd" : "apache");
  print_feature("WEB_FPAdminSysUser", "false");
  return 0;
}
