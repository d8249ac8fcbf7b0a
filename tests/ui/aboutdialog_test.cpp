// The about box.
#include "aboutdialog.h"

#include "linkcatcher.h"
#include "uitest.h"

#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <gtest/gtest.h>

namespace {

TEST(AboutDialogTest, ShowsItsTextsAndOnlyOkOrEscapeCloseIt)
{
    LinkCatcher catcher({"http", "https"});
    AboutDialog dialog;
    EXPECT_EQ(dialog.windowTitle(), "About...");
    EXPECT_EQ(child<QLabel>(&dialog, "textLabel1")->text(), "Orvane ZEL5 Tray");
    EXPECT_EQ(child<QLabel>(&dialog, "textLabel2")->text(), "Version 5.1.11");
    EXPECT_EQ(child<QLabel>(&dialog, "pixmapLabel1")->pixmap().deviceIndependentSize(), QSizeF(32, 32));
    auto* link = child<QLabel>(&dialog, "txtLink");
    EXPECT_EQ(link->cursor().shape(), Qt::PointingHandCursor);

    EXPECT_EQ(execDialog(dialog, [&] {
                  QTest::mouseClick(link, Qt::LeftButton);
                  EXPECT_TRUE(dialog.isVisible());
                  QTest::mouseClick(child<QPushButton>(&dialog, "btnOK"), Qt::LeftButton);
              }),
              QDialog::Accepted);
    EXPECT_TRUE(catcher.opened.isEmpty()) << "the address opens nothing";
    EXPECT_EQ(execDialog(dialog, [&] { QTest::keyClick(&dialog, Qt::Key_Escape); }), QDialog::Rejected);
}

} // namespace
