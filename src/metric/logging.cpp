#include "metric/logging.h"

#include "win/com_strings.h"

namespace zeph {

bool IsLogLevelEnabled(IProviderLogger* logger, LogLevel level) noexcept
{
    if (logger == nullptr) {
        return false;
    }
    ULONG levels = 0;
    logger->GetCategoryLevels(kLogCategory, &levels);
    return (levels & LevelBit(level)) != 0;
}

void WriteLogLine(IProviderLogger* logger, LogLevel level, const std::wstring& text)
{
    const unique_bstr category = MakeBstr(kLogCategory);
    const unique_bstr line = MakeBstr(text);
    switch (level) {
    case LogLevel::Error:
        logger->LogError(category.get(), line.get());
        break;
    case LogLevel::Warning:
        logger->LogWarning(category.get(), line.get());
        break;
    case LogLevel::Info:
        logger->LogInfo(category.get(), line.get());
        break;
    }
}

}  // namespace zeph
