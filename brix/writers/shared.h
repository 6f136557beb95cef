// What the rest of the library borrows from the writers: text escaping, the pieces of brixcmd's
// XML model that the facade offers on their own, and the gzip file writing of the binary files.
#ifndef BRIX_WRITERS_SHARED_H
#define BRIX_WRITERS_SHARED_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "zel/inpout/fwd.h"

namespace brix {
class dtree;
namespace impls {
class table;
class conf_matrix;
}  // namespace impls

// s as a JSON string literal, quotes and control characters escaped.
std::string json_string(std::string const& s);

namespace writers {

// s with & < > " and ' as XML entities, for element text and attribute values alike.
std::string xml_escape(std::string const& s);

void xml_data_dictionary(impls::table const& meta, std::ostream& out);
void xml_mining_schema(impls::table const& meta, std::ostream& out);
// The matrix as the element X-ConfusionMatrix + name.
void xml_matrix(impls::conf_matrix const& m, std::string const& name, std::ostream& out);

// PMML's test of a value one of values: a SimpleSetPredicate isIn over an array of strings, each
// quoted, a quote or backslash in it escaped with a backslash.
std::string set_predicate(std::string const& field, std::vector<std::string> const& values);

// The first byte of a tree file whose tree splits on groups of values, in place of the model's
// presence flag (1): brixcmd's format cannot hold such splits, and its reader refuses the file.
constexpr unsigned char kGroupsTag = 'S';
// The tree file at path (the binary format, or, with groups, one that starts with kGroupsTag).
// Throws std::runtime_error naming what the file holds when it is not such a tree.
dtree* read_tree_file(std::string const& file, bool groups);

// A gzip file at level 1 holding what write puts in; on any failure a partial regular file is
// removed, so that nothing is left that looks complete.
void write_binary_file(std::string const& file,
                       std::function<void(zel::inpout::obinstream&)> const& write);

}  // namespace writers
}  // namespace brix

#endif
