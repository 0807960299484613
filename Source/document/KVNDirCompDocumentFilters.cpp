// The filter and exclusion side of a comparison document.
#include "KVNDirCompDocument.h"

#include "KVNMainThread.h"
#include "KVNPathBytes.h"

namespace {

KVNPredicatePtr resultFilter(std::initializer_list<int> results)
{
    QString format;
    QList<KVNValue> arguments;
    for (int result : results) {
        format += format.isEmpty() ? QStringLiteral("(diffResult == %d") : QStringLiteral(" OR diffResult == %d");
        arguments << KVNValue::fromInteger(result);
    }
    return KVNPredicate::predicateWithFormat(format + QLatin1Char(')'), arguments);
}

} // namespace

KVNPredicatePtr KVNDirCompDocument::filterPredicateForAction(KVNFilterAction action)
{
    switch (action) {
    case KVNFilterAction::ShowDefault:
        // 0 belongs here so that rows not yet compared stay in view during a run.
        return resultFilter(
            {KVNDiffResultSingle, KVNDiffResultDifferSingle, KVNDiffResultDiffer, KVNDiffResultUnknown});
    case KVNFilterAction::ShowDifferent:
        return resultFilter({KVNDiffResultDiffer, KVNDiffResultDifferSingle});
    case KVNFilterAction::ShowSingle:
        return resultFilter({KVNDiffResultSingle, KVNDiffResultDifferSingle});
    case KVNFilterAction::ShowSame:
        return resultFilter({KVNDiffResultSame});
    case KVNFilterAction::ShowAll:
    case KVNFilterAction::None:
        break;
    }
    return nullptr;
}

void KVNDirCompDocument::performFilterAction(KVNFilterAction action)
{
    switch (action) {
    case KVNFilterAction::ShowAll:
        return filterShowAll();
    case KVNFilterAction::ShowDifferent:
        return filterShowDifferent();
    case KVNFilterAction::ShowSingle:
        return filterShowSingle();
    case KVNFilterAction::ShowSame:
        return filterShowSame();
    case KVNFilterAction::ShowDefault:
        return filterShowDefault();
    case KVNFilterAction::None:
        return;
    }
}

#define KVN_FILTER_ACTION(name, action)                                                                                \
    void KVNDirCompDocument::name()                                                                                    \
    {                                                                                                                  \
        setFilterPredicate(filterPredicateForAction(action));                                                          \
        selectedFilterAction_ = action;                                                                                \
        updateFilterPredicates();                                                                                      \
    }
KVN_FILTER_ACTION(filterShowAll, KVNFilterAction::ShowAll)
KVN_FILTER_ACTION(filterShowDifferent, KVNFilterAction::ShowDifferent)
KVN_FILTER_ACTION(filterShowSingle, KVNFilterAction::ShowSingle)
KVN_FILTER_ACTION(filterShowSame, KVNFilterAction::ShowSame)
KVN_FILTER_ACTION(filterShowDefault, KVNFilterAction::ShowDefault)
#undef KVN_FILTER_ACTION

void KVNDirCompDocument::setFilterPredicate(const KVNPredicatePtr &predicate)
{
    filterPredicate_ = predicate;
}

void KVNDirCompDocument::setExclusionPredicate(const KVNPredicatePtr &predicate)
{
    exclusionPredicate_ = predicate;
    // Seen on the main thread in a later pass, like any observed change.
    prepareSafeObserveForKeyPath(this, QStringLiteral("exclusionPredicate"), identity(this), {}, nullptr);
}

void KVNDirCompDocument::updateFilterPredicates()
{
    std::vector<KVNPredicatePtr> parts{KVNPredicate::predicateWithFormat(QStringLiteral("depthHint == 1"))};
    if (exclusionPredicate_)
        parts.push_back(KVNPredicate::notPredicateWithSubpredicate(exclusionPredicate_));
    if (filterPredicate_)
        parts.push_back(filterPredicate_);
    {
        std::lock_guard monitor(filteredArrayControllerMonitor_);
        filteredArrayController_->setFilterPredicate(KVNPredicate::andPredicateWithSubpredicates(parts));
        filteredArrayController_->setContent(sourceArrayController_->content());
    }
    filteredChildrenLUT_.clear();
    view().reloadData();
}

std::vector<KVNDirDiffTableElementPtr> KVNDirCompDocument::filteredTopLevelRows() const
{
    return filteredArrayController_->arrangedObjects();
}

std::optional<std::vector<KVNDirDiffTableElementPtr>>
KVNDirCompDocument::cachedFilteredChildrenForElement(const KVNDirDiffTableElementPtr &element)
{
    if (!element || !element->hasChildElements())
        return std::nullopt;
    const QByteArray key = element->relativePath();
    auto cached = filteredChildrenLUT_.constFind(key);
    if (cached != filteredChildrenLUT_.cend())
        return *cached;
    std::vector<KVNPredicatePtr> parts;
    if (exclusionPredicate_)
        parts.push_back(KVNPredicate::notPredicateWithSubpredicate(exclusionPredicate_));
    if (filterPredicate_)
        parts.push_back(filterPredicate_);
    auto children = parts.empty() ? element->childElements()
                                  : element->filteredChildren(KVNPredicate::andPredicateWithSubpredicates(parts));
    filteredChildrenLUT_.insert(key, children);
    return children;
}

void KVNDirCompDocument::excludeByFilename(const KVNDirDiffTableElementPtr &element)
{
    if (!element)
        return;
    // Stars and question marks stay wildcards, as they always have: such a name
    // excludes what it matches as a pattern. A backslash, which would escape the
    // next character, is doubled so that the name (or its display form) matches itself.
    QString name = KVNPathBytes::displayString(KVNPathBytes::lastComponent(element->relativePath()));
    name.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    auto rule = KVNPredicate::predicateWithFormat(QStringLiteral("spotlightItemFSName LIKE[c] %@"),
                                                  {KVNValue::fromString(name)});
    setExclusionPredicate(exclusionPredicate_ ? KVNPredicate::orPredicateWithSubpredicates({exclusionPredicate_, rule})
                                              : rule);
}

void KVNDirCompDocument::excludeAllByExtension(const KVNDirDiffTableElementPtr &element)
{
    if (!element)
        return;
    const QByteArray extension = KVNPathBytes::pathExtension(KVNPathBytes::lastComponent(element->relativePath()));
    if (extension.isEmpty())
        return;
    auto rule = KVNPredicate::predicateWithFormat(
        QStringLiteral("spotlightItemFSName ENDSWITH[c] %@"),
        {KVNValue::fromString(QLatin1Char('.') + KVNPathBytes::displayString(extension))});
    setExclusionPredicate(exclusionPredicate_ ? KVNPredicate::orPredicateWithSubpredicates({exclusionPredicate_, rule})
                                              : rule);
}
