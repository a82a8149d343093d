// Backslashes in texts that travel between members.
#pragma once

namespace tarn {

// Copies a text without its backslashes, every one of them, to the heap. Returns the number of characters kept; when
// memory ends, 0 with the copy null.
int Remove_Escape(const char *text, char **copy);

}  // namespace tarn
