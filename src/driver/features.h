// The features report: PHP assignments that the panel includes.
#pragma once

// Writes one assignment to standard output; "true" and "false" are written bare, any other value quoted.
// Neither key nor value is escaped. Returns 0, or -1 when nothing could be written.
int print_feature(const char *key, const char *value);

// Writes the report on the discovered web server. Returns 0.
int print_features();
