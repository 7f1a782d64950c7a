// The whole public interface of the vlk toolkit in one include.
//
// Lists every public header under <vlk/...> (tests/install/check_umbrella.sh
// fails when one is missing), so that a program may start with this one line
// and narrow its includes later. It adds nothing of its own; its cost is
// compile time, the declarations of all 1006 catalogue rows included.
#pragma once

#include <vlk/catalogue/error_factory.hpp>
#include <vlk/catalogue/error_id.hpp>
#include <vlk/catalogue/error_manager.hpp>
#include <vlk/catalogue/errors.hpp>
#include <vlk/catalogue/report.hpp>
#include <vlk/containers/hash_map.hpp>
#include <vlk/containers/hash_set.hpp>
#include <vlk/containers/hash_table.hpp>
#include <vlk/containers/intrusive_pointer.hpp>
#include <vlk/containers/mpmc_hash_map.hpp>
#include <vlk/containers/mpmc_queue.hpp>
#include <vlk/containers/shared_pointer.hpp>
#include <vlk/containers/thread_tracker.hpp>
#include <vlk/containers/worklist.hpp>
#include <vlk/logging/console_logger.hpp>
#include <vlk/logging/error_stream.hpp>
#include <vlk/logging/file_logger.hpp>
#include <vlk/logging/gzip_logger.hpp>
#include <vlk/logging/iso_timestamp.hpp>
#include <vlk/logging/log_stream.hpp>
#include <vlk/logging/syslog_logger.hpp>
#include <vlk/logging/target.hpp>
#include <vlk/logging/target_config.hpp>
#include <vlk/logging/velk_logger.hpp>
#include <vlk/memory/log_stream_allocator.hpp>
#include <vlk/regex/jit_regex.hpp>
#include <vlk/regex/regex.hpp>
#include <vlk/regex/regex_manager.hpp>
#include <vlk/system/abort.hpp>
#include <vlk/system/allocate.hpp>
#include <vlk/system/clock.hpp>
#include <vlk/system/convert.hpp>
#include <vlk/system/cpu.hpp>
#include <vlk/system/cstring.hpp>
#include <vlk/system/directory.hpp>
#include <vlk/system/exception.hpp>
#include <vlk/system/fatal.hpp>
#include <vlk/system/fast_itoa.hpp>
#include <vlk/system/host.hpp>
#include <vlk/system/host_text.hpp>
#include <vlk/system/init_once.hpp>
#include <vlk/system/link_wrappers.hpp>
#include <vlk/system/memory_info.hpp>
#include <vlk/system/mmap.hpp>
#include <vlk/system/mutex_lock.hpp>
#include <vlk/system/process_barrier.hpp>
#include <vlk/system/spin_lock.hpp>
#include <vlk/system/string_utils.hpp>
#include <vlk/system/thread.hpp>
#include <vlk/version.hpp>
