// A migration of chosen containers: their own road and nothing beside it.
#include "Ravelle/Classification.h"
#include "Ravelle/NeededServices.h"
#include "Ravelle/Ravelle.h"
#include "Ravelle/RavelleAccount.h"
#include "Ravelle/RavelleLog.h"

namespace quorvel {

namespace {

constexpr const char* kPerform = "-[QVRavelle performMigration]";

// A marker may name other containers than its own, which nobody chose.
bool StaysInside(const RecordFields& record, const Path& entry) {
  const std::string& container = entry.string();
  return record.container.string() == container && ParentOf(record.bundle.string()) == container &&
         (!record.secondBundle || ParentOf(record.secondBundle->string()) == container);
}

void Leave(const Path& entry, const Classification& found, MigrationReason why) {
  TellClassification(found, Account());
  RAVELLE_LOG(LogLevelNotice, kPerform, "QVRavelle: Leaving %@: %s", entry.string(), NameOf(why));
  TellProblem(MigrationStep::introspect, why, entry);
  Account().containerEnded(MigrationOutcome::left, found.verdict != Classification::Verdict::none);
}

}  // namespace

// In the order of a whole run. Looking changes nothing; what is chosen is then introspected as
// ever.
bool QVRavelle::_migrateChosen(const MigrationSelection& selection) {
  std::deque<WorkItem> workList;
  bool allMigrated = true;
  for (std::size_t index = 0; index < _itemsToMigrate->size(); ++index) {
    const Path& item = (*_itemsToMigrate)[index];
    Account().containerBegan(index, item.string());
    const Classification found = ClassifyLegacyContainer(_files, item);
    const RecordFields fields = found.record ? FieldsOf(*found.record) : RecordFields();
    if (!found.record || !selection.isChosen(fields.identifier)) {
      Leave(item, found, MigrationReason::notChosen);
    } else if (!StaysInside(fields, item)) {
      Leave(item, found, MigrationReason::foreignMarker);
      allMigrated = false;
    } else if (_addToWorkList(index, workList)) {
      continue;
    }
    _countItem();
  }
  return _migrateRecords(workList) && allMigrated;
}

}  // namespace quorvel
