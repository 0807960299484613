#pragma once

#include "KVNDirDiffTableElement.h"

#include <QString>

// What a comparison document asks of whatever shows it: the outline, the
// status line with its spinner, and the window. A window implements it; so do
// headless runners and tests. Every call comes on the main thread.
class KVNDirCompDocumentView {
public:
    virtual ~KVNDirCompDocumentView() = default;

    virtual void reloadData() {}
    // A null item reloads everything.
    virtual void reloadItem(const KVNDirDiffTableElementPtr &item, bool reloadChildren)
    {
        (void)item;
        (void)reloadChildren;
    }
    virtual void setStatusText(const QString &text) { (void)text; }
    virtual bool isSpinnerHidden() const { return spinnerHidden_; }
    virtual void setSpinnerHidden(bool hidden) { spinnerHidden_ = hidden; }
    virtual void startSpinner() {}
    virtual void stopSpinner() {}
    virtual bool isWindowLoadedAndVisible() const { return true; }
    virtual void validateVisibleItems() {}
    virtual void closeWindow() {}

private:
    bool spinnerHidden_ = true;
};
