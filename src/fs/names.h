// Names that become one part of a path and a quoted word of a shell command.
#pragma once

// Whether `name` may stand there: not null, not empty, not "." or "..", and without slashes, quotes (' and
// "), backslashes and control characters. Any other byte is fine, so that a name outside ASCII is one, too.
bool is_plain_name(const char *name);

// Whether it may not, but for null and the empty name: what these mean is said elsewhere.
bool leads_elsewhere(const char *name);
