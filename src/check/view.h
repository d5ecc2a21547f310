// A copy-on-write view of the machine: what is written below the directories of the configuration goes to
// memory, and everything else cannot be written at all. It belongs to the calling process and its children
// and ends with them.
#pragma once

#include <string>

// Moves the calling process, which must have one thread, into a view of its own. Returns false with the
// reason when the machine refuses; the process should end then.
bool enter_view(std::string &reason);

// A domain's directory may be a link that leads out of the directories above. Brings it into the view;
// failures show when somebody writes there.
void include_domain_in_view(const char *domain);
