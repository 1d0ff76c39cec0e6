// What stands in the tables of a set, as text and as JSON.
#include <iomanip>
#include <ostream>

#include "host/inspect.h"
#include "host/table_entries.h"
#include "host/utf8.h"
#include "host/value_json.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t value_columns = 40;

void print_row(std::ostream &out, const FtblRow &row) {
    out << "\nSKU " << row.sku << ": " << row.entries_count << " entries at " << row.entries_at
        << "\n   NUMBER  CLASS  ATTR  STORE    ID  MAX SIZE  NAME\n";
    for (const FtblEntry &entry : row.entries) {
        out << std::setw(9) << number_in_class(entry.number) << std::setw(7)
            << class_of(entry.number) << "  " << hex_digits(entry.attributes, 4) << "  "
            << std::left << std::setw(5) << store_name(entry.store) << std::right << std::setw(6)
            << entry.id << std::setw(10) << entry.max_size << "  " << escape(entry.name) << '\n';
    }
}

void print_efst_row(std::ostream &out, const EfstRow &row) {
    out << "\nEFS of SKU " << row.sku << ": " << row.bm_num << " BMs, " << row.valid_blocks
        << " logical and " << row.spare_blocks << " spare blocks, " << row.files_num
        << " file slots, wear threshold " << row.wear_threshold << ", layout " << row.layout_id
        << "\n  FILE  BLOCK  OFFSET  MAX SIZE\n";
    for (const EfstRecord &record : row.records) {
        out << std::setw(6) << record.file_index << std::setw(7) << unsigned{record.block}
            << std::setw(8) << record.offset << std::setw(10) << record.max_size << '\n';
    }
}

Json entry_to_json(const FtblEntry &entry) {
    return {{"name", entry.name},
            {"number", number_in_class(entry.number)},
            {"class", class_of(entry.number)},
            {"attributes", entry.attributes},
            {"store", store_name(entry.store)},
            {"id", entry.id},
            {"max_size", entry.max_size}};
}

Json efst_row_to_json(const EfstRow &row) {
    Json json{{"sku", row.sku},
              {"bm_num", row.bm_num},
              {"valid_blocks", row.valid_blocks},
              {"spare_blocks", row.spare_blocks},
              {"files_num", row.files_num},
              {"wear_threshold", row.wear_threshold},
              {"layout_id", row.layout_id}};
    json["places"] = Json::array();
    for (const EfstRecord &record : row.records) {
        json["places"].push_back({{"number", record.file_index},
                                  {"block", record.block},
                                  {"offset", record.offset},
                                  {"max_size", record.max_size}});
    }
    return json;
}

Bytes payload_of(const FcsStore &store, const FcsRecord &record) {
    if (!store.has_payload(record)) {
        return {};
    }
    const auto payload = store.payload(record);
    return {payload.begin(), payload.end()};
}

} // namespace

void print_table(std::ostream &out, const FileTable &table, size_t size) {
    out << "File table of " << size << " bytes: " << table.row_count << " SKUs, "
        << (table.efst_at ? "with" : "without") << " EFS\n";
    for (const FtblRow &row : table.rows) {
        print_row(out, row);
    }
    for (const EfstRow &row : table.efst_rows) {
        print_efst_row(out, row);
    }
}

Json table_to_json(const FileTable &table) {
    Json json{{"kind", "table"}};
    json["rows"] = Json::array();
    for (const FtblRow &row : table.rows) {
        Json entries = Json::array();
        for (const FtblEntry &entry : row.entries) {
            entries.push_back(entry_to_json(entry));
        }
        json["rows"].push_back({{"sku", row.sku}, {"entries", std::move(entries)}});
    }
    json["efs"] = Json::array();
    for (const EfstRow &row : table.efst_rows) {
        json["efs"].push_back(efst_row_to_json(row));
    }
    return json;
}

void print_store(std::ostream &out, const FcsStore &store, const FileNames &names) {
    out << "Configuration store of " << store.bytes.size() << " bytes: " << store.count
        << " records\n\n   NUMBER  CLASS  OFFSET   SIZE  OPAQUE  NAME, VALUE\n";
    for (const FcsRecord &record : store.records) {
        out << std::setw(9) << number_in_class(record.number) << std::setw(7)
            << class_of(record.number) << std::setw(8) << record.offset << std::setw(7)
            << record.size << "    " << hex_digits(record.opaque, 4) << "  "
            << escape(name_of(names, record.number)) << ", "
            << preview_value(payload_of(store, record), value_columns) << '\n';
    }
}

Json store_to_json(const FcsStore &store, const FileNames &names) {
    Json json{{"kind", "store"}};
    json["records"] = Json::array();
    for (const FcsRecord &record : store.records) {
        Json shown{{"number", number_in_class(record.number)},
                   {"class", class_of(record.number)},
                   {"name", name_of(names, record.number)},
                   {"offset", record.offset},
                   {"opaque", record.opaque}};
        shown.update(value_to_json(payload_of(store, record)));
        json["records"].push_back(std::move(shown));
    }
    return json;
}

std::vector<std::string> table_damages(const FileTable &table, size_t size) {
    std::vector<std::string> broken;
    if (!table.has_magic) {
        broken.emplace_back("the file table does not begin with FTBL");
    }
    if (size < ftbl::min_size || table.rows.size() != table.row_count) {
        broken.push_back("a file table of " + std::to_string(size) + " bytes has no " +
                         std::to_string(table.row_count) + " SKUs");
    }
    for (const FtblRow &row : table.rows) {
        if (row.entries.size() != row.entries_count && row.entries_count >> 31 == 0) {
            broken.push_back("the entries of SKU " + std::to_string(row.sku) +
                             " run past the end of the table");
        }
    }
    for (const EfstRow &row : table.efst_rows) {
        if (row.records.size() != row.records_count) {
            broken.push_back("the EFS files of SKU " + std::to_string(row.sku) +
                             " run past the end of the table");
        }
    }
    return broken;
}

std::vector<std::string> store_damages(const FcsStore &store) {
    std::vector<std::string> broken;
    if (!store.has_all_records()) {
        broken.push_back("its " + std::to_string(store.count) + " records reach past the end");
    }
    for (size_t i = 0; i < store.records.size(); ++i) {
        if (!store.has_payload(store.records[i])) {
            broken.push_back("the value of record " + std::to_string(i) + " reaches past the end");
        }
    }
    return broken;
}

} // namespace dolm
