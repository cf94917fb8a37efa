/*
 * tarnel_util.h - every public header of the library at once.
 */
#ifndef TARNEL_UTIL_TARNEL_UTIL_H
#define TARNEL_UTIL_TARNEL_UTIL_H

#include "tn_types.h"
#include "tn_alloc.h"
#include "tn_byte.h"
#include "tn_mult.h"
#include "tn_array.h"
#include "tn_pack.h"
#include "tn_time.h"
#include "tn_poll.h"
#include "tn_thread.h"
#include "tn_mutex.h"
#include "tn_semaphore.h"
#include "tn_sync.h"
#include "tn_signal.h"
#include "tn_net.h"
#include "tn_scheduler.h"
#include "tn_str.h"
#include "tn_wstr.h"
#include "tn_uchar_array.h"
#include "tn_wchar_array.h"
#include "tn_utf8.h"
#include "tn_str_array.h"
#include "tn_str_list.h"
#include "tn_csv.h"
#include "tn_param.h"
#include "tn_fmt.h"
#include "tn_log.h"
#include "tn_file.h"
#include "tn_ip.h"
#include "tn_socket.h"
#include "tn_input_buffer.h"
#include "tn_output_buffer.h"
#include "tn_mime_type.h"
#include "tn_http_vocab.h"
#include "tn_caltime.h"
#include "tn_rfc1123_date.h"
#include "tn_uri.h"

#endif /* TARNEL_UTIL_TARNEL_UTIL_H */
