#pragma once

#include <QObject>
#include <QString>
#include <QVariant>

#include <memory>

namespace com::veltrasys {

/// The file of this stand-in: one JSON object, a text under each key.
constexpr auto kRegistryFile = "/var/lib/kxregistry/registry.json";

/// Client of the platform's key/value registry, which all processes of the terminal share.
///
/// Signals are delivered from the event loop of the thread the object lives in, for changes made by any
/// process, this one included, and only for keys this object has subscribed. All functions block for the
/// duration of one small file access, changes also for those of other writers; they may be called only from
/// the object's thread.
class Q_DECL_EXPORT Registry : public QObject {
    Q_OBJECT

public:
    explicit Registry(QObject* parent = nullptr);
    ~Registry() override;

    /// Has the signals report changes of \a key from now on. Subscribing twice is the same as once.
    /// \return the current value, as getValue returns it
    QVariant subscribe(const QString& key);

    /// Ends the reports for \a key; does nothing when it was not subscribed.
    void unsubscribe(const QString& key);

    /// \return the value; a null QVariant when the key is absent; a text that begins with "Error:" when the
    ///         store cannot be read
    QVariant getValue(const QString& key);

    /// Stores \a value, as text, under \a key. Nothing is written, or reported, if the key has that value.
    /// \return whether the store holds it now
    bool setValue(const QString& key, const QVariant& value);

    /// Removes \a key; an absent key is no failure.
    /// \return whether the key is absent from the store now
    bool deleteKey(const QString& key);

signals:
    /// A subscribed key was created or has another value.
    void valueChanged(const QString& key, const QString& value);

    /// A subscribed key was removed.
    void keyDeleted(const QString& key);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace com::veltrasys
