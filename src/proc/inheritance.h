// What a process inherits from whoever starts it.
#pragma once

// Mends what a careless parent may have left: opens /dev/null for each standard descriptor that is closed (a file
// opened in its place would receive our messages) and has ended children wait for us again. Keeps errno.
void mend_inheritance();
