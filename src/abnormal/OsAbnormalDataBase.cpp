// The store of OS abnormal events.
#include "OsAbnormalDataBase.h"

COsAbnormalDataBase::COsAbnormalDataBase() : m_dayOfMonth(0), m_db(nullptr) {}
COsAbnormalDataBase::~COsAbnormalDataBase() {}
bool COsAbnormalDataBase::IsOpen() { return m_db != nullptr; }
bool COsAbnormalDataBase::OpenDb(bool) { return false; }
void COsAbnormalDataBase::Close() {}
bool COsAbnormalDataBase::InsertData(OsAbnormalEventType, int, const std::string&, const std::string&) { return false; }
