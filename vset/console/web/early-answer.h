// An answer to a request whose body shall not come.
#ifndef VSET_CONSOLE_WEB_EARLY_ANSWER_H
#define VSET_CONSOLE_WEB_EARLY_ANSWER_H

#include <libsoup/soup.h>
#include <string>

namespace vset
{

// Answers at once with `status` and `text`, and closes the connection: libsoup by itself answers only when
// all that was announced has come. For the "got-headers" and "got-chunk" handlers of `message`, which is gone
// after them. What the client still sends is dropped for some seconds, because it would lose the answer by a
// reset; the main loop of this thread does that.
void answerEarly(SoupServerMessage* message, guint status, const std::string& text);

} // namespace vset

#endif
