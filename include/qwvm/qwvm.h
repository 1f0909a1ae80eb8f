/*
 * qwvm/qwvm.h: the umbrella header. Including it gives the whole C API.
 * See qwvm/qwlib.h for the conventions every function follows.
 */
#ifndef QWVM_QWVM_H
#define QWVM_QWVM_H

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwutil.h"
#include "qwvm/qwlog.h"
#include "qwvm/qwmime.h"
#include "qwvm/qwcache.h"
#include "qwvm/qwdict.h"
#include "qwvm/vmarena.h"
#include "qwvm/vmaarray.h"
#include "qwvm/dbarray.h"
#include "qwvm/ldbarray.h"
#include "qwvm/gbarray.h"
#include "qwvm/offsetmap.h"
#include "qwvm/btree.h"
#include "qwvm/dbavlldict.h"
#include "qwvm/pitree.h"
#include "qwvm/idtree.h"
#include "qwvm/fpbdict.h"
#include "qwvm/pathdict.h"
#include "qwvm/sfs.h"
#include "qwvm/booleval.h"
#include "qwvm/lvm.h"
#include "qwvm/box.h"
#include "qwvm/boxdata.h"
#include "qwvm/lstrtable.h"
#include "qwvm/sort.h"

#endif /* QWVM_QWVM_H */
