// Certificate files as Apache wants them here: certificate and key in one PEM file.
#pragma once

#include <string>

// What is wrong with a host's certificate file, "" when nothing is.
std::string certificate_fault(const char *path);

// What is wrong with a file of CA certificates.
std::string ca_file_fault(const char *path);
