/*
 * qwvm/box.h: constants shared by the box store and its data files.
 *
 * A box keeps the bytes of its entries in data files ("box.dat", one per
 * bucket). A data file is an array of BOXLVM_PAGE_SIZE-byte pages; a page is
 * cut into BOXLVM_PAGEUNITS units of BOXLVM_UNIT_SIZE bytes, and a block
 * (one part of one entry) is a run of 1 to 256 units that never crosses a
 * page boundary. A block is named by its handle, the index of its first
 * unit (its byte offset is handle * BOXLVM_UNIT_SIZE), and its size class c
 * says that it is (c + 1) units long.
 *
 * Conventions are those of qwvm/qwlib.h.
 */
#ifndef QWVM_BOX_H
#define QWVM_BOX_H

#include <stdint.h>

/* Name of the data file inside a bucket's data directory. */
#define BOXLVM_DATA_FILE_NAME "box.dat"

/* Geometry of a data file. */
#define BOXLVM_UNIT_SIZE 32u
#define BOXLVM_PAGEUNITS 256u
#define BOXLVM_PAGE_SIZE 8192u
/* Largest block (class 255). */
#define BOXLVM_MAX_BLOCK_SIZE 8192u
/* Header of a written (version 0) block, and so the most data one block
 * holds: every block of a multi-block entry but the last holds exactly this
 * many bytes. */
#define BOXLVM_BLOCK_HEADER_SIZE 20u
#define BOXLVM_MAX_BLOCK_DATA (BOXLVM_MAX_BLOCK_SIZE - BOXLVM_BLOCK_HEADER_SIZE)
/* Size classes 0 .. 255. */
#define BOXLVM_SIZE_CLASSES 256u

/* A data file never grows past this many pages (just under 2 GiB). */
#define BOXLVM_MAX_DATA_PAGES 262142u
/* Largest block handle an entry's primary mapping can hold. */
#define BOXLVM_HANDLE_MAXVALUE 0x7FFFFFFEu
/* "None": the next handle of an entry's last block, and the entry id of an
 * erased block. */
#define BOXLVM_NO_HANDLE 0xFFFFFFFFu
#define BOXLVM_NO_ID 0xFFFFFFFFu

#endif /* QWVM_BOX_H */
