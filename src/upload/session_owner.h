// SPDX-License-Identifier: MIT
// src/upload/session_owner.h: whoever owns an upload service and wants to hear of its end.
#pragma once

#include <QObject>

class KSession : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

public Q_SLOTS:
    virtual void Destroyes(void *p, int t) = 0;
};
