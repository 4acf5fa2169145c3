// C-side log of the configuration model, grammar and directory glue.
//
// log_init(level) stores the level (the service uses 4). A line is emitted when the stored level is
// at least the line's level: log_warn/log_warnx 2, log_info 3, log_debugx 4, log_debugx2 5.
// Each message is formatted into at most 256 bytes (255 characters) and emitted as "KELD: %s", or
// "KELD: %s: %s" with the system error text (errno at the call) for log_warn.
//
// log_err/log_errx do not return: they emit the line at error level and throw
// HostCtl::Lib::Orsa::OrsaCtlException whose message is the formatted text followed by
// " (<system error text>)" for log_err, or the formatted text alone for log_errx.
// The `eval` argument is kept for the familiar signature and is not used.
#pragma once

void log_init(int level);
int log_get_level(void);
void log_warn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_warnx(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_debugx(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_debugx2(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void log_err(int eval, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void log_errx(int eval, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The text of the last warning (log_warn/log_warnx, emitted or not) that this thread logged: why a
// step that only reports "failed" failed. "" before the first one.
const char* log_last_warning(void);
