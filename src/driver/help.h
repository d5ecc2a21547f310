// The help text.
#pragma once

// Prints it to standard output.
void print_help();
