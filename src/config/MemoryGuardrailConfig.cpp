#include "config/MemoryGuardrailConfig.h"

#include <cjson/cJSON.h>

#include <utility>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "config/cjson_ext.h"

namespace tavrend {
namespace {

// The file holds signed 32-bit limits; -1 becomes the largest 64-bit value.
uint64_t limitOf(const cJSON* item) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(item->valueint)));
}

}  // namespace

int loadMemoryGuardrailConfig(std::vector<MemoryGuardrailConfig>& configs) {
    cJSON* root = cJSON_Parse_File(kMemoryGuardrailConfigPath, 0);
    if (root == nullptr) {
        TLOGW("cjson root is null for %s, perhaps file not found", kMemoryGuardrailConfigPath);
        return -1;
    }
    const cJSON* processes = cJSON_GetObjectItem(root, "processes");
    if (!cJSON_IsArray(processes)) {
        cJSON_Delete(root);
        return -1;
    }
    int index = 0;
    for (const cJSON* element = processes->child; element != nullptr;
         element = element->next, ++index) {
        const cJSON* name = cJSON_GetObjectItem(element, "name");
        const cJSON* soft = cJSON_GetObjectItem(element, "soft_memory_limit");
        const cJSON* hard = cJSON_GetObjectItem(element, "hard_memory_limit");
        if (!cJSON_IsString(name) || name->valuestring == nullptr || !cJSON_IsNumber(soft) ||
            !cJSON_IsNumber(hard)) {
            // A row without both limits can't be enforced safely; the others still are.
            TLOGE(
                "Guardrail entry %d (%s) needs a string name and numeric soft_memory_limit "
                "and hard_memory_limit, skipping it",
                index,
                cJSON_IsString(name) && name->valuestring != nullptr ? name->valuestring
                                                                     : "no name");
            continue;
        }
        MemoryGuardrailConfig row{name->valuestring, limitOf(soft), limitOf(hard)};
        TLOGI(TAVREND_MSG_GUARDRAIL_ROW, row.name.c_str(),
              static_cast<unsigned long long>(row.soft_memory_limit),
              static_cast<unsigned long long>(row.hard_memory_limit));
        configs.push_back(std::move(row));
    }
    cJSON_Delete(root);
    return 0;
}

}  // namespace tavrend
