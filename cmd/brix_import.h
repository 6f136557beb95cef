// brix import and brix check: tables moved to brixcmd's .names/.data files, and the pre-flight
// that finds what would make brixcmd fail or read a table other than the one meant.
#ifndef BRIX_CMD_BRIX_IMPORT_H
#define BRIX_CMD_BRIX_IMPORT_H

#include <string>
#include <vector>

#include "brix/data.h"

// Writes STEM.names and STEM.data (and STEM.test from test, unless empty) that brixcmd loads
// into the table brix reads from data with opts (class column, kinds and types); says what it did
// on standard error unless quiet. Data errors throw std::runtime_error; nothing is left
// half-written. Returns the exit status.
int brix_import(std::string const& data, std::string const& stem, std::string const& test,
                brix::read_options opts, bool quiet);

// Prints every problem found in a CSV/TSV file or a .names/.data stem, one per line, then a
// summary; returns 0 when there is none, 1 otherwise. sep 0: the separator by the file's name
// (a stem's: the one that splits its .names). Unreadable files throw std::runtime_error.
int brix_check(std::string const& data, std::string const& class_column, char sep = 0);

// Whether DATA names a CSV/TSV/ARFF file (optionally .gz) rather than a .names/.data stem.
bool is_table_file(std::string const& p);
bool file_exists(std::string const& p);

// The files a DATA argument reads: the file itself, or a stem's .names and .data (.data.gz).
std::vector<std::string> input_files(std::string const& data);

// Whether two names are one file: the same device and inode, or, for a file not there yet, the
// same name once links are resolved. Hard links, symbolic links and other spellings included.
bool same_file(std::string const& a, std::string const& b);

// Their usage lines and what --help says below them.
extern char const* const kImportSynopsis;
extern char const* const kImportHelp;
extern char const* const kCheckSynopsis;
extern char const* const kCheckHelp;

#endif
