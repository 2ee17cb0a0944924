// What the tests of the dumpers share: the log in a file, and all dumpers behind one face.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include <qzfi/log.h>

#include "dump/sample_records.h"

namespace dump_support {

/// An unnamed file as the log, while it lives.
class FileLog {
public:
    FileLog() : file_(tmpfile()) { set_qzfi_msgout(file_); }
    ~FileLog() {
        set_qzfi_msgout(nullptr);
        fclose(file_);
    }
    FileLog(const FileLog &) = delete;
    FileLog &operator=(const FileLog &) = delete;

    /// What reached the file; unflushed output does not count.
    std::string text() const {
        std::string text;
        char bytes[4096];
        for (ssize_t count = 0; (count = pread(fileno(file_), bytes, sizeof bytes, off_t(text.size()))) > 0;)
            text.append(bytes, std::size_t(count));
        return text;
    }

private:
    FILE *file_;
};

using Dump = std::function<int32_t(uint32_t indent, int32_t newline, const char *label)>;

/// A dumper, with the records that it is given.
struct Dumper {
    const char *name;
    Dump sample;
    Dump empty;                 // a record of zeros
    Dump null;                  // none for the dumpers that take their record by value
    const char *null_line = ""; // without its indentation
};

template <class Record, int32_t (*dumper)(const Record *, uint32_t, int32_t, const char *)>
Dumper by_pointer(const char *name, const Record &sample, const char *null_line) {
    static const Record zeros{};
    const auto on = [](const Record *record) {
        return [record](uint32_t indent, int32_t newline, const char *label) {
            return dumper(record, indent, newline, label);
        };
    };
    return {name, on(&sample), on(&zeros), on(nullptr), null_line};
}

template <class Record, int32_t (*dumper)(Record, uint32_t, int32_t, const char *)>
Dumper by_value(const char *name, const Record &sample) {
    const auto on = [](const Record &record) {
        return [record](uint32_t indent, int32_t newline, const char *label) {
            return dumper(record, indent, newline, label);
        };
    };
    return {name, on(sample), on(Record{}), nullptr};
}

inline std::vector<Dumper> all_dumpers(const Samples &of) {
    return {
        by_pointer<qfi_io_req_t, qzfiprt_qfi_io_req>("qfi_io_req", of.io_req, " qfi_io_req = NULL\n"),
        by_pointer<qfi_fim, qzfiprt_qfi_fim>("qfi_fim", of.fim, " qfi_fim = NULL\n"),
        by_pointer<qfi_fim_list, qzfiprt_qfi_fim_list>("qfi_fim_list", of.fim_list, " qfi_fim_list = NULL\n"),
        by_pointer<qfi_provider, qzfiprt_qfi_provider>("qfi_provider", of.provider, " qfi_provider = NULL\n"),
        by_pointer<qfi_provider_list, qzfiprt_qfi_provider_list>("qfi_provider_list", of.provider_list,
                                                                 " qfi_provider_list = NULL\n"),
        by_pointer<qfi_attr, qzfiprt_qfi_attr>("qfi_attr", of.attr, " qfi_attr = NULL\n"),
        by_pointer<qfi_qs_combo, qzfiprt_qfi_qs_combo>("qfi_qs_combo", of.qs_combo, " qfi_qs_combo = NULL\n"),
        by_value<qfi_ss_readystat, qzfiprt_qfi_ss_readystat>("qfi_ss_readystat", of.readystat),
        by_value<qfi_ss_configstat, qzfiprt_qfi_ss_configstat>("qfi_ss_configstat", of.configstat),
        by_value<qfi_ss_namestat, qzfiprt_qfi_ss_namestat>("qfi_ss_namestat", of.namestat),
        by_pointer<qfi_splitstat, qzfiprt_qfi_splitstat>("qfi_splitstat", of.splitstat, " qfi_splitstat = NULL\n"),
        by_pointer<qfi_group, qzfiprt_qfi_group>("qfi_group", of.group, " qfi_groups = NULL\n"),
        by_pointer<qfi_groups, qzfiprt_qfi_groups>("qfi_groups", of.groups, " qfi_groups = NULL\n"),
        by_pointer<qfi_quiesce, qzfiprt_qfi_qsplit>("qfi_qsplit", of.qsplit, " qfi_resource = NULL\n"),
        by_pointer<qfi_time_t, qzfiprt_qfi_time>("qfi_time", of.time, " qfi_time = NULL\n"),
        by_pointer<qfi_objid_t, qzfiprt_qfi_objid>("qfi_objid", of.path_id, " qfi_objid = NULL\n"),
        by_pointer<qfi_resource_disp_t, qzfiprt_qfi_resource_disp>("qfi_resource_disp", of.resource_disp,
                                                                   " qfi_resource_disp_t = NULL\n"),
        by_pointer<qfi_group_node, qzfiprt_qfi_group_node>("qfi_group_node", of.group_node, " qfi_group_node = NULL\n"),
        by_pointer<qfi_group_node_list, qzfiprt_qfi_group_node_list>("qfi_group_node_list", of.group_node_list,
                                                                     " qfi_group_node_list = NULL\n"),
        by_pointer<qfi_node, qzfiprt_qfi_node>("qfi_node", of.node, " qfi_node = NULL\n"),
        by_pointer<qfi_node_list, qzfiprt_qfi_node_list>("qfi_node_list", of.node_list, " qfi_node_list = NULL\n"),
        by_pointer<qfi_assoc, qzfiprt_qfi_assoc>("qfi_assoc", of.assoc, " qfi_assoc = NULL\n"),
        by_pointer<qfi_assoc_list, qzfiprt_qfi_assoc_list>("qfi_assoc_list", of.assoc_list, " qfi_assoc_list = NULL\n"),
        by_pointer<qfi_resource, qzfiprt_qfi_resource>("qfi_resource", of.resource, " qfi_resource = NULL\n"),
        by_pointer<qfi_domain, qzfiprt_qfi_domain>("qfi_domain", of.domain, " qfi_domain = NULL\n"),
        by_pointer<qfi_domain_tree_list_t, qzfiprt_qfi_domain_tree_list>("qfi_domain_tree_list", of.domain_tree_list,
                                                                         " qfi_domain_tree_list_t = NULL\n"),
    };
}

} // namespace dump_support
