#include <tarnel_util/tn_signal.h>

#include <csignal>

tn_int32 tn_signal_id_int(void) { return SIGINT; }
tn_int32 tn_signal_id_term(void) { return SIGTERM; }
tn_int32 tn_signal_id_alarm(void) { return SIGALRM; }
tn_int32 tn_signal_id_child(void) { return SIGCHLD; }
tn_int32 tn_signal_id_cont(void) { return SIGCONT; }
tn_int32 tn_signal_id_hangup(void) { return SIGHUP; }
tn_int32 tn_signal_id_pipe(void) { return SIGPIPE; }

void tn_signal_catch(tn_int32 signal, tn_signal_handler handler)
{
    if (signal != -1) std::signal(signal, handler);
}

void tn_signal_ignore(tn_int32 signal)
{
    if (signal != -1) std::signal(signal, SIG_IGN);
}

void tn_signal_uncatch(tn_int32 signal)
{
    if (signal != -1) std::signal(signal, SIG_DFL);
}

tn_bool tn_signal_raise(tn_int32 signal)
{
    return signal != -1 && std::raise(signal) == 0;
}
