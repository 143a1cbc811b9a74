// The two mail directories under /tmp (the spool the app drops mail into and
// the log of the last mail): opened only when nobody else could swap what
// is in them, and taken back from whoever made them first.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// Opens the mail directory abs: the log directory (ours, made 0755 when
// missing) or the spool (root's, or caller's when given; made root's and
// everybody's, sticky, when moved aside or, with create, missing). One that
// belongs to anybody else, or is no directory, is moved aside and made
// afresh. -1 with why otherwise.
int open_mail_dir(const char* abs, bool spool, bool create, std::optional<uid_t> caller, std::string& why);
