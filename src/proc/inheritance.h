// What a process inherits from whoever starts it.
#pragma once

// Mends what a careless parent may have left: opens /dev/null for each standard descriptor that is closed (a
// file opened in its place would receive our messages), closes all others (a lock of the caller's would be
// held for as long as we run in the background) and has ended children wait for us again. A write beyond the
// limit on the size of files fails from here on instead of ending the process; programs that we run are not
// affected. Keeps errno.
void mend_inheritance();
