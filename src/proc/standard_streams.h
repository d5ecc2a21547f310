// The three standard descriptors.
#pragma once

// Opens /dev/null for each of them that is closed. A file opened in its place would receive our messages.
void open_standard_streams();
