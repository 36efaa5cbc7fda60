// Bounded copy into a fixed text field.
#pragma once

// At most size - 1 characters, always terminated. A null source copies
// nothing and leaves an empty text.
void copy_text(char* dst, unsigned long size, const char* src);
