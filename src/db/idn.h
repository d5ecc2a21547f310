// Internationalised domain names: UTF-8 to the ASCII-compatible form that DNS and Apache use.
#pragma once

#include "driver/report.h"

// libidn's result code of the most recent failed conversion; written on failure only.
extern int idn_last_error;

// English text of a libidn result code; static.
const char *idn_error_text(int code);

// The ASCII form of a UTF-8 name, newly allocated. Null, unreported, on failure, with the code in
// idn_last_error. Ends the run when memory is out.
unique_text idn_toascii(const char *name);

// The same, but every failure ends the run.
unique_text idn_toascii_safe(const char *name);

// The URL or bare host name with its host in ASCII form and everything else as it is, in a static buffer of
// TEXT_SIZE bytes that the next call overwrites. Null after a report; ends the run only when memory is out.
const char *idn_url_toascii(const char *url);
