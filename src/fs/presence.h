// Whether something is there, for callers that must not take "cannot look" for "is not there".
#pragma once

enum class presence { absent, there, unknown };

// Looks through links, so a dangling one is absent. `unknown` with the reason in errno: anything but a name
// that leads nowhere (ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG). errno is what stat leaves.
presence look_for(const char *path);

// The same for a directory, or a link to one; anything else at the path counts as absent.
presence look_for_directory(const char *path);

// Reports that nobody can tell whether the path is there, with errno's reason. Returns -1.
int report_unknown(const char *path);
