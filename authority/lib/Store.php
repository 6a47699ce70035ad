<?php

declare(strict_types=1);

namespace Quorvex\Authority;

use PDO;

/** Everything that the authority keeps, in one SQLite file that its owner alone may read. */
final class Store
{
    private const FILE = 'authority.sqlite';

    /** How long a request waits for one that is writing. */
    private const BUSY_TIMEOUT_MS = 20000;

    /** How many requests the log keeps: the last ones. */
    private const LOGGED_REQUESTS = 10000;

    /** Longest piece of a field that the request log keeps. */
    private const LOGGED_CHARACTERS = 200;

    private const SCHEMA = <<<'SQL'
        CREATE TABLE IF NOT EXISTS agents (
            id INTEGER PRIMARY KEY AUTOINCREMENT,
            host_name TEXT NOT NULL UNIQUE COLLATE NOCASE,
            agent_type INTEGER NOT NULL,
            is_server_agent INTEGER NOT NULL,
            mac_address TEXT NOT NULL,
            agent_version TEXT NOT NULL,
            os_variant_id INTEGER NOT NULL,
            os_type INTEGER NOT NULL,
            os_extensions TEXT NOT NULL,
            registered_at TEXT NOT NULL DEFAULT CURRENT_TIMESTAMP
        );
        CREATE TABLE IF NOT EXISTS accounts (
            login TEXT PRIMARY KEY,
            password_hash TEXT NOT NULL,
            agent_id INTEGER UNIQUE REFERENCES agents (id)
        );
        CREATE TABLE IF NOT EXISTS pools (
            id INTEGER PRIMARY KEY,
            name TEXT NOT NULL UNIQUE,
            recommended_rt TEXT NOT NULL,
            current_rt TEXT NOT NULL
        );
        CREATE TABLE IF NOT EXISTS templates (
            id INTEGER PRIMARY KEY,
            content TEXT NOT NULL
        );
        CREATE TABLE IF NOT EXISTS dataselections (
            id INTEGER PRIMARY KEY AUTOINCREMENT,
            agent_id INTEGER NOT NULL REFERENCES agents (id),
            name TEXT NOT NULL,
            type_id TEXT NOT NULL,
            rules TEXT NOT NULL,
            created_at TEXT NOT NULL DEFAULT CURRENT_TIMESTAMP,
            UNIQUE (agent_id, name)
        );
        CREATE TABLE IF NOT EXISTS requests (
            id INTEGER PRIMARY KEY AUTOINCREMENT,
            received_at TEXT NOT NULL DEFAULT CURRENT_TIMESTAMP,
            page TEXT NOT NULL,
            action TEXT NOT NULL,
            login TEXT NOT NULL,
            fields TEXT NOT NULL,
            outcome TEXT NOT NULL,
            client TEXT NOT NULL DEFAULT ''
        );
        SQL;

    /** Given to a log of requests that was made before it had this column. */
    private const ADD_CLIENT = "ALTER TABLE requests ADD COLUMN client TEXT NOT NULL DEFAULT ''";

    private function __construct(private readonly PDO $database)
    {
    }

    /** Opens the file in a data directory; it must be there, made by create(). */
    public static function open(string $directory, bool $readOnly = false): self
    {
        if (!extension_loaded('pdo_sqlite')) {
            throw new \RuntimeException('PHP has no SQLite (Debian package php-sqlite3)');
        }
        $mode = $readOnly ? PDO::SQLITE_OPEN_READONLY : PDO::SQLITE_OPEN_READWRITE;
        $database = new PDO("sqlite:$directory/" . self::FILE, null, null, [
            PDO::SQLITE_ATTR_OPEN_FLAGS => $mode,
            PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION,
            PDO::ATTR_DEFAULT_FETCH_MODE => PDO::FETCH_ASSOC,
        ]);
        $database->exec('PRAGMA busy_timeout = ' . self::BUSY_TIMEOUT_MS);
        $database->exec('PRAGMA foreign_keys = ON');
        return new self($database);
    }

    /** Opens the file in a data directory, made with its tables when they are missing. */
    public static function create(string $directory): self
    {
        // SQLite gives its journal the mode of the file itself.
        $mask = umask(0177);
        touch($directory . '/' . self::FILE);
        umask($mask);
        $store = self::open($directory);
        // The file remembers it. A writer then holds up the others for one flush of the disk instead of four.
        $store->database->exec('PRAGMA journal_mode = WAL');
        $store->database->exec(self::SCHEMA);
        if (!in_array('client', array_column($store->rows('PRAGMA table_info(requests)'), 'name'), true)) {
            $store->database->exec(self::ADD_CLIENT);
        }
        return $store;
    }

    /**
     * Runs the work as one transaction that no other writer can come between.
     *
     * @template T
     * @param \Closure(): T $work
     * @return T
     */
    public function atomically(\Closure $work): mixed
    {
        $this->database->exec('BEGIN IMMEDIATE');
        try {
            $result = $work();
            $this->database->exec('COMMIT');
            return $result;
        } catch (\Throwable $failure) {
            $this->rollBack();
            throw $failure;
        }
    }

    /** Ends the transaction, unless SQLite has done so itself, as it does when the disk is full. */
    private function rollBack(): void
    {
        try {
            $this->database->exec('ROLLBACK');
        } catch (\PDOException) {
        }
    }

    /** @return list<array<string, mixed>> */
    public function rows(string $sql, array $values = []): array
    {
        return $this->run($sql, $values)->fetchAll();
    }

    /** @return array<string, mixed>|null the account of this login */
    public function account(string $login): ?array
    {
        return $this->row('SELECT * FROM accounts WHERE login = ?', [$login]);
    }

    public function saveAccount(string $login, string $hash, ?int $agentId): void
    {
        $this->run(
            'INSERT INTO accounts (login, password_hash, agent_id) VALUES (?, ?, ?)
             ON CONFLICT (login) DO UPDATE SET password_hash = excluded.password_hash',
            [$login, $hash, $agentId]
        );
    }

    /** @return array<string, mixed>|null */
    public function agent(int $id): ?array
    {
        return $this->row('SELECT * FROM agents WHERE id = ?', [$id]);
    }

    /** @return array<string, mixed>|null the agent of this host, whatever the letter case of its name */
    public function agentOfHost(string $hostName): ?array
    {
        return $this->row('SELECT * FROM agents WHERE host_name = ?', [$hostName]);
    }

    /**
     * Writes an agent's properties, under a new id when none is given.
     *
     * @param array<string, int|string> $properties column => value
     * @return int the agent's id
     */
    public function saveAgent(?int $id, array $properties): int
    {
        $columns = ['id' => $id] + $properties;
        $updates = array_map(static fn (string $c): string => "$c = excluded.$c", array_keys($properties));
        $this->run(
            'INSERT INTO agents (' . implode(', ', array_keys($columns)) . ')
             VALUES (' . implode(', ', array_fill(0, count($columns), '?')) . ')
             ON CONFLICT (id) DO UPDATE SET ' . implode(', ', $updates) . ', registered_at = CURRENT_TIMESTAMP',
            array_values($columns)
        );
        return $id ?? (int) $this->database->lastInsertId();
    }

    /** @return list<array<string, mixed>> */
    public function pools(): array
    {
        return $this->rows('SELECT id, name FROM pools ORDER BY id');
    }

    /** @return array<string, mixed>|null */
    public function pool(int $id): ?array
    {
        return $this->row('SELECT * FROM pools WHERE id = ?', [$id]);
    }

    public function savePool(int $id, string $name, string $recommended, string $current): void
    {
        $this->run('INSERT OR REPLACE INTO pools VALUES (?, ?, ?, ?)', [$id, $name, $recommended, $current]);
    }

    /** @return array<string, mixed>|null */
    public function template(int $id): ?array
    {
        return $this->row('SELECT * FROM templates WHERE id = ?', [$id]);
    }

    public function saveTemplate(int $id, string $content): void
    {
        $this->run('INSERT OR REPLACE INTO templates VALUES (?, ?)', [$id, $content]);
    }

    /** @return int|null the new data selection's id; null when the agent has one of this name */
    public function addDataSelection(int $agentId, string $name, string $typeId, string $rules): ?int
    {
        $added = $this->run(
            'INSERT INTO dataselections (agent_id, name, type_id, rules) VALUES (?, ?, ?, ?)
             ON CONFLICT (agent_id, name) DO NOTHING',
            [$agentId, $name, $typeId, $rules]
        );
        return $added->rowCount() === 1 ? (int) $this->database->lastInsertId() : null;
    }

    /**
     * Adds a line to the log of requests, and drops the line that is one too many.
     *
     * @param array<string, string> $fields none of them secret
     * @param string $client the address that the request came from
     */
    public function logRequest(
        string $page,
        string $action,
        string $login,
        array $fields,
        string $outcome,
        string $client
    ): void {
        $pieces = [];
        foreach ($fields as $name => $value) {
            $pieces[] = $name . '=' . preg_replace('/^(.{' . self::LOGGED_CHARACTERS . '}).+$/Dsu', '$1...', $value);
        }
        $this->run(
            'INSERT INTO requests (page, action, login, fields, outcome, client) VALUES (?, ?, ?, ?, ?, ?)',
            [$page, $action, $login, implode(' ', $pieces), $outcome, $client]
        );
        $this->run('DELETE FROM requests WHERE id <= ?', [$this->database->lastInsertId() - self::LOGGED_REQUESTS]);
    }

    /** @return array<string, mixed>|null */
    private function row(string $sql, array $values): ?array
    {
        return $this->rows($sql, $values)[0] ?? null;
    }

    private function run(string $sql, array $values): \PDOStatement
    {
        $statement = $this->database->prepare($sql);
        $statement->execute($values);
        return $statement;
    }
}
