// The document root of a site before, during and after an installation of the extensions. The site's owner
// writes everything in it, so nothing here follows a link out of it, waits for it or reads it without bound.
#pragma once

#include <sys/types.h>

// Ends the run when the document root is a symbolic link: all that is renamed and deleted would be another's.
void refuse_linked_document_root(const char *docs_root);

// Puts aside every .htaccess and the lists of the sub-webs, and clears what an earlier installation left. A
// failure ends the run; a list that cannot be read or put aside is reported.
void clear_for_installation(const char *docs_root);

// Puts the .htaccess files of all directories but the document root itself back. A failure ends the run.
void restore_protections(const char *docs_root);

// Sets the mode of the document root, never that of what a link leads to. Returns whether it did, with errno
// set.
bool set_document_root_mode(const char *docs_root, mode_t mode);

// Renames the document root's own .htaccess to .htaccess.saved_on_fp_delete, if it can.
void put_protection_aside(const char *docs_root);
