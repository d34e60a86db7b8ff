// Objects as records, the same in every verb. Pure.
#pragma once

#include <vector>

#include "client/model/objects.h"
#include "client/output/printer.h"

namespace kvox::client {

Fields FieldsOf(const Processor& processor);
Fields FieldsOf(const TapPoint& tap);
Fields FieldsOf(const Buffer& buffer);
Fields FieldsOf(const Path& path);
Fields FieldsOf(const UseCase& use_case);

template <typename T>
std::vector<Fields> RecordsOf(const std::vector<T>& items) {
  std::vector<Fields> records;
  for (const T& item : items) records.push_back(FieldsOf(item));
  return records;
}

/// A list of names as records with one field.
std::vector<Fields> RecordsOf(const char* key, const std::vector<std::string>& names);

}  // namespace kvox::client
