/* vobrel: common runtime services. Including this header brings in every area.
 * Sources: none (it includes every area header). */
#ifndef VOBREL_VOBREL_H
#define VOBREL_VOBREL_H

#include <vobrel/types.h>
#include <vobrel/rc.h>
#include <vobrel/platform.h>
#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/debug.h>
#include <vobrel/xos.h>
#include <vobrel/queue.h>
#include <vobrel/data_queue.h>
#include <vobrel/list.h>
#include <vobrel/id_manager.h>
#include <vobrel/string_db.h>
#include <vobrel/watched.h>
#include <vobrel/util.h>
#include <vobrel/runtime.h>

#endif /* VOBREL_VOBREL_H */
